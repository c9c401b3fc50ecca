// MTL material libraries: the material record and its reader.
#pragma once

#include "base/Containers.h"
#include "base/Error.h"
#include "base/Reference.h"
#include "base/String.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// One material of a material library. A field holds data only when its bit is set in the
/// presence mask (getMask()); the colours are (r, g, b, a) with a = 1.
class QYGEOM_API MeshObjMaterial : public qy::ReferenceCount
{
public:
    /// Bits of the presence mask.
    enum Field : unsigned
    {
        Ambient = 1,           ///< Ka
        Diffuse = 2,           ///< Kd
        Specular = 4,          ///< Ks
        Transmission = 8,      ///< Tf
        Illumination = 16,     ///< illum
        SpecularExponent = 32, ///< Ns
        Dissolve = 64,         ///< d or Tr (the later one wins, stored as written)
        OpticalDensity = 128,  ///< Ni
    };

    MeshObjMaterial() = default;
    explicit MeshObjMaterial(qyString::IString materialName) : name(std::move(materialName)) {}
    ~MeshObjMaterial() override;

    bool has(Field f) const { return (mask & f) != 0; }
    unsigned getMask() const { return mask; }
    const qyString::CString& getName() const { return name; }

    qyString::CString name;
    unsigned mask = 0;
    float ambient[4] = {0, 0, 0, 1};
    float diffuse[4] = {0, 0, 0, 1};
    float specular[4] = {0, 0, 0, 1};
    float transmission[4] = {0, 0, 0, 1};
    int illumination = 0;
    float specularExponent = 0;
    float dissolve = 0;
    float opticalDensity = 0;
    qyString::CString ambientMap;  ///< map_Ka
    qyString::CString diffuseMap;  ///< map_Kd
    qyString::CString specularMap; ///< map_Ks
};

/// Reads a material library into one record per `newmtl`, in file order.
///
/// Statements: newmtl name; Ka, Kd, Ks, Tf r g b; d, Tr, Ns, Ni x; illum n (an integer);
/// map_Ka, map_Kd, map_Ks name. Each statement ends with a line end (or the end of the
/// file); '#' starts a comment through the end of its line, line end included. Keywords are
/// case-sensitive whole words. Any other statement (Ke, map_Bump, bump, refl ...) ends the
/// material, and the read then fails: this reader accepts exactly the statements above.
///
/// @param[out] materials  cleared first; to be used only on success.
/// @return success, or the first failure: code 1 "Lexical analysis failed" when the file
///   cannot be opened or holds a character outside the token set (such as '@' or '"');
///   code 2 "Parse failed on line %d: %s\n" for a grammar error, with one of "expecting
///   'newmtl' or end of file", "expecting name", "expecting newline", "expecting number",
///   "expecting integer". A blank line before the first newmtl is such an error.
/// Threads: any number of reads may run at once (no state is shared between calls).
QYGEOM_API qyUtil::Error meshReadObjMaterial(const qyString::IString& fileName,
                                             qy::vector<qy::Reference<MeshObjMaterial>>& materials);

} // namespace qyGeom
