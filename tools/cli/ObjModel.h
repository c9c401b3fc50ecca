// The program's own view of an OBJ file: what a command carries from its input to its output
// (positions and their colours, texture coordinates, normals, polygon faces whose corners
// keep their own texture and normal indices, objects, groups, smoothing groups, materials
// and material libraries), read and written with numbers that keep every float32 bit.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "model/CompactMesh.h"

namespace qyCli
{

/// One face corner: 0-based position, texture-coordinate and normal index, -1 where absent.
struct ObjCorner
{
    int v = -1;
    int vt = -1;
    int vn = -1;
};

/// The statements in force for a face; an empty string where none was given.
struct ObjFaceState
{
    std::string object, group, smoothing, material;
    bool operator==(const ObjFaceState&) const = default;
};

/// An OBJ file as the program keeps it. Face f has the corners
/// corners[faceStarts[f]] .. corners[faceStarts[f + 1] - 1].
struct ObjModel
{
    std::vector<float> positions; ///< 3 per vertex
    std::vector<float> colours;   ///< 3 per vertex ("v x y z r g b"), or empty
    std::vector<float> texCoords; ///< 2 per texture coordinate
    std::vector<float> normals;   ///< 3 per normal
    std::vector<int> faceStarts{0};
    std::vector<ObjCorner> corners;
    std::vector<int> faceStates; ///< per face, an index into `states`
    std::vector<ObjFaceState> states;
    std::vector<std::string> libraries; ///< `mtllib` names as written, relative to `directory`
    std::string directory;              ///< the folder of the file read

    int numVertices() const { return int(positions.size() / 3); }
    int numTexCoords() const { return int(texCoords.size() / 2); }
    int numNormals() const { return int(normals.size() / 3); }
    int numFaces() const { return int(faceStarts.size()) - 1; }
    int faceSize(int f) const
    {
        return faceStarts[std::size_t(f) + 1] - faceStarts[std::size_t(f)];
    }
    /// Appends a face under the state `state` (an entry of `states` is added when it differs
    /// from the last one).
    void addFace(const ObjCorner* c, int n, const ObjFaceState& state);
    /// Distinct material names of the faces, in order of first use.
    std::vector<std::string> materialNames() const;
    /// Distinct group names of the faces (an unnamed group counts when it has faces).
    int numGroups() const;
    /// Vertices that no face uses.
    int numUnreferencedVertices() const;
};

/// What reading a file left out or changed, for the commands to report.
struct ObjReadNotes
{
    std::map<std::string, int> skippedStatements; ///< keyword -> lines not read (l, p, ...)
    int shortFaces = 0;                           ///< faces of fewer than 3 corners, left out
    int outsideFaces = 0;      ///< faces naming a vertex that the file does not have
    int outsideAttributes = 0; ///< texture or normal indices outside the file, dropped
    int extraNumberLines = 0;  ///< lines with numbers or text after those that count
    long firstExtraNumberLine = 0;
    int droppedColours = 0; ///< vertex colours dropped since not every vertex had one
    std::vector<std::pair<long, long>> longLines; ///< (line, bytes) of lines above 16383 bytes
};

/// Reads an OBJ file. Numbers convert as strtod does in the "C" locale, then to float32;
/// when the first comment line starts with "# CATIA OBJ File:", ',' is the decimal point.
/// Failure: throws Failure with one line ("cannot read '<path>': line N: ...") for a file
/// that cannot be read, is not text, or has a statement whose numbers are missing or not
/// finite, or a face corner that is not one.
void readObjModel(const std::string& path, ObjModel& model, ObjReadNotes& notes);

/// Writes `model` as OBJ text to `file` (named `shownName` in messages). Numbers are the
/// shortest text that reads back to the same float32 (`digits` 0), or %.<digits>g. Library
/// names are rewritten relative to `outputDir` when that is not the model's directory.
/// Failure: throws Failure "cannot write '<shownName>': <reason>" when a write fails, and
/// refuses a number that is not finite (nothing such is ever written).
void writeObjModel(const ObjModel& model, std::FILE* file, const std::string& shownName, int digits,
                   const std::string& outputDir);

/// The triangles of a model's faces, for the commands that need triangles.
struct ObjTriangles
{
    qyGeom::CompactMesh mesh; ///< one vertex per model vertex, the triangles
    std::vector<int> corners; ///< 3 per triangle: the model corner each triangle corner is
    std::vector<int> faces;   ///< per triangle, the face it came from
    int polygons = 0;         ///< faces of more than 3 corners that were split
    int polygonTriangles = 0; ///< the triangles they gave
    int skippedPolygons = 0;  ///< polygons that gave no triangle (fewer than 3 distinct corners)
    int skippedTriangles = 0; ///< triangles naming a vertex twice, left out when asked
};

/// Triangulates the model's faces: triangles as they are, polygons by
/// meshTriangulatePolygons (quads along their better-shaped diagonal). With
/// `dropRepeatedCorners`, triangles that name a vertex twice are left out and counted.
void triangulateObjModel(const ObjModel& model, bool dropRepeatedCorners, ObjTriangles& out);

/// Prints on standard output how many polygons became how many triangles, and how many faces
/// were left out, when there were any.
void reportTriangulation(const ObjTriangles& triangles);

/// Replaces `model` by a model of `mesh`'s vertices and triangles, without attributes.
void objModelFromMesh(const qyGeom::CompactMesh& mesh, ObjModel& model);

} // namespace qyCli
