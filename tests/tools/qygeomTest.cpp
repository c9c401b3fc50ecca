// Drives the qygeom program as a user would: commands on files written here, the demo,
// errors, and a run cancelled with Ctrl-C.
#include <array>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "qyGeom/meshReadObj.h"
#include "qyGeom/meshWriteObj.h"
#include "runQygeom.h"
#include "testMeshes.h"

namespace
{

namespace fs = std::filesystem;
using namespace qyToolTest;

// The host part of the staging folders' names, as the program writes it.
std::string hostTag()
{
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    std::string tag;
    for (const char* c = name; *c && tag.size() < 32; ++c)
        tag += std::isalnum(static_cast<unsigned char>(*c)) || *c == '.' ? *c : '_';
    return tag;
}

// A process id that no process has: that of a child that has ended and been reaped.
pid_t deadPid()
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

// Whether two OBJ files hold the same vertices (to the bit) and triangles.
bool sameMesh(const fs::path& a, const fs::path& b)
{
    qyGeom::CompactMesh ma, mb;
    if (!qyGeom::meshReadObj(ma, qyOS::Filename(a.c_str())) ||
        !qyGeom::meshReadObj(mb, qyOS::Filename(b.c_str())) ||
        ma.getNumVertices() != mb.getNumVertices() || ma.getNumTriangles() != mb.getNumTriangles())
        return false;
    return std::equal(ma.getVerticesRaw(), ma.getVerticesRaw() + 3 * ma.getNumVertices(),
                      mb.getVerticesRaw()) &&
           std::equal(ma.getTrianglesRaw(), ma.getTrianglesRaw() + 3 * ma.getNumTriangles(),
                      mb.getTrianglesRaw());
}

class Qygeom : public ScratchFolderTest
{
protected:
    // Files in dir, hidden staging folders included, apart from the captured streams.
    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir))
            names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
};

// Checks that every tag is closed in order and counts <polygon elements: enough of XML to
// know a viewer will open the picture.
bool wellFormedSvg(const std::string& text, int& polygons)
{
    polygons = 0;
    std::vector<std::string> open;
    std::size_t i = 0;
    while ((i = text.find('<', i)) != std::string::npos)
    {
        const std::size_t end = text.find('>', i);
        if (end == std::string::npos)
            return false;
        const std::string tag = text.substr(i + 1, end - i - 1);
        i = end + 1;
        if (tag.starts_with("?") || tag.starts_with("!"))
            continue;
        if (tag.starts_with("/"))
        {
            if (open.empty() || open.back() != tag.substr(1))
                return false;
            open.pop_back();
            continue;
        }
        const std::string name = tag.substr(0, tag.find_first_of(" \t\n/"));
        polygons += name == "polygon";
        if (std::count(tag.begin(), tag.end(), '"') % 2)
            return false;
        if (!tag.ends_with("/"))
            open.push_back(name);
    }
    return open.empty();
}

TEST_F(Qygeom, DemoWritesTheMeshItsMaterialAndAnUnflippedLayout)
{
    const Outcome r = run(dir, {});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("0 flipped"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("boundary loops:      1"), std::string::npos) << r.out;
    EXPECT_EQ(files(), (std::vector<std::string>{"demo-uv.svg", "demo.mtl", "demo.obj"}));
    const std::string obj = slurp(dir / "demo.obj");
    EXPECT_EQ(obj.rfind("mtllib demo.mtl\n", 0), 0u);
    EXPECT_NE(obj.find("\nvt "), std::string::npos);
    int polygons = 0;
    EXPECT_TRUE(wellFormedSvg(slurp(dir / "demo-uv.svg"), polygons));
    EXPECT_GT(polygons, 1000);
}

TEST_F(Qygeom, FlattenDrawsOnePolygonPerTriangleAndRefusesToOverwriteItsInput)
{
    const qyGeom::CompactMesh mesh = qyTest::makeHemisphere(12, 32);
    ASSERT_TRUE(qyGeom::meshWriteObj(mesh, (dir / "cap.obj").string().c_str()));
    Outcome r = run(dir, {"flatten", "cap.obj", "flat.obj", "--svg", "flat.svg"});
    ASSERT_EQ(r.status, 0) << r.err;
    int polygons = 0;
    EXPECT_TRUE(wellFormedSvg(slurp(dir / "flat.svg"), polygons));
    EXPECT_EQ(polygons, mesh.getNumTriangles());
    EXPECT_TRUE(fs::exists(dir / "flat.mtl"));

    // The strict parser reads the flattened file's faces; info sees one disk.
    r = run(dir, {"info", "flat.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("genus:               0"), std::string::npos) << r.out;

    r = run(dir, {"weld", "cap.obj", "./cap.obj"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("is the input"), std::string::npos) << r.err;

    // A closed surface without cutting cannot be flattened: one error line, no output.
    ASSERT_TRUE(
        qyGeom::meshWriteObj(qyTest::makeIcosphere(2), (dir / "ball.obj").string().c_str()));
    r = run(dir, {"flatten", "--no-cut", "ball.obj", "ball-flat.obj"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("qygeom flatten: the mesh could not be flattened without cutting it "
                         "(try without --no-cut) (the surface is closed or has handles, and "
                         "cutting is off)\n"),
              std::string::npos)
        << r.err;
    EXPECT_FALSE(fs::exists(dir / "ball-flat.obj"));
}

TEST_F(Qygeom, ACancelledFlattenLeavesNoFileBehind)
{
    ASSERT_TRUE(
        qyGeom::meshWriteObj(qyTest::makeHemisphere(150, 400), (dir / "big.obj").string().c_str()));
    // The welding of the working copy prints its header line when flattening has begun.
    const Outcome r = run(dir, {"--verbose", "flatten", "big.obj", "out.obj", "--svg", "out.svg"},
                          interruptWhenStderrHas("meshCompact:"));
    EXPECT_EQ(r.status, 130) << r.err;
    EXPECT_NE(r.err.find("cancelled"), std::string::npos) << r.err;
    EXPECT_EQ(files(), (std::vector<std::string>{"big.obj"}));
}

TEST_F(Qygeom, ErrorsAreOneClearLineWithANonZeroStatus)
{
    Outcome r = run(dir, {"info", "missing.obj"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qygeom info: cannot read 'missing.obj': no such file\n");

    std::ofstream(dir / "bad.obj") << "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\nbogus 1 2\n";
    r = run(dir, {"check", "bad.obj"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("line 5"), std::string::npos) << r.err;

    std::ofstream(dir / "good.obj") << "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n";
    r = run(dir, {"check", "good.obj"});
    EXPECT_EQ(r.status, 0) << r.err;

    r = run(dir, {"convert", "good.obj", "good.xyz"});
    EXPECT_EQ(r.status, 2);
    r = run(dir, {"frobnicate"});
    EXPECT_EQ(r.status, 2);
    r = run(dir, {"curvature", "good.obj", "--kind", "sideways"});
    EXPECT_EQ(r.status, 2);
    r = run(dir, {"--threads", "0", "info", "good.obj"});
    EXPECT_EQ(r.status, 2);
    fs::create_directory(dir / "folder.obj");
    r = run(dir, {"info", "folder.obj"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("directory"), std::string::npos) << r.err;
    std::ofstream(dir / "garbage.obj") << std::string("\x7f"
                                                      "ELF\x01\x02\x00\xff\xfe",
                                                      9);
    r = run(dir, {"info", "garbage.obj"});
    EXPECT_EQ(r.status, 1) << r.err;
}

TEST_F(Qygeom, ConvertWeldAndCurvatureRoundTripThroughBothFormats)
{
    ASSERT_TRUE(qyGeom::meshWriteObj(qyTest::makeTriangleSoup(qyTest::makeIcosphere(2)),
                                     (dir / "soup.obj").string().c_str()));
    Outcome r = run(dir, {"weld", "soup.obj", "ball.qym"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("welded 960 vertices into 162"), std::string::npos) << r.out;
    r = run(dir, {"convert", "ball.qym", "ball.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    r = run(dir, {"info", "ball.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("vertices:            162"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Euler characteristic: 2"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("consistently oriented: yes"), std::string::npos) << r.out;

    r = run(dir, {"curvature", "ball.obj", "--kind", "gaussian", "--csv", "k.csv"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string csv = slurp(dir / "k.csv");
    EXPECT_EQ(csv.rfind("vertex,x,y,z,gaussian\n", 0), 0u);
    EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 163);
    r = run(dir, {"normals", "ball.obj", "lit.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(slurp(dir / "lit.obj").find("\nvn "), std::string::npos);
    r = run(dir, {"--help"});
    EXPECT_EQ(r.status, 0);
    r = run(dir, {"flatten", "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("--no-cut"), std::string::npos);
}

TEST_F(Qygeom, AFailedWriteKeepsTheOldOutputAndSaysWhy)
{
    // Every output is larger than the file size limit of the runs below, so each write fails
    // part way (EFBIG, as ENOSPC on a full disk). The old outputs must stay as they were,
    // byte for byte, with one error line naming the file and the reason, and no litter.
    ASSERT_TRUE(
        qyGeom::meshWriteObj(qyTest::makeHemisphere(30, 60), (dir / "cap.obj").string().c_str()));
    const std::string old = "old output\n";
    struct Case
    {
        std::vector<std::string> args;
        std::string failing; // the output whose write fails
        std::vector<std::string> outputs;
    };
    const std::vector<Case> cases = {
        {{"convert", "cap.obj", "out.obj"}, "out.obj", {"out.obj"}},
        {{"convert", "cap.obj", "out.qym"}, "out.qym", {"out.qym"}},
        {{"weld", "cap.obj", "out.obj"}, "out.obj", {"out.obj"}},
        {{"normals", "cap.obj", "out.obj"}, "out.obj", {"out.obj"}},
        {{"flatten", "cap.obj", "flat.obj"}, "flat.obj", {"flat.obj", "flat.mtl"}},
        {{"flatten", "cap.obj", "flat.obj", "--svg", "flat.svg"},
         "flat.svg",
         {"flat.obj", "flat.mtl", "flat.svg"}},
        {{"curvature", "cap.obj", "--kind", "mean", "--csv", "k.csv"}, "k.csv", {"k.csv"}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.args[0] + " " + c.failing);
        for (const std::string& name : c.outputs)
            std::ofstream(dir / name, std::ios::binary) << old;
        const std::vector<std::string> before = files();
        const Outcome r = run(dir, c.args, fileSizeLimit(64 * 1024));
        EXPECT_EQ(r.status, 1) << r.out;
        EXPECT_EQ(r.err,
                  "qygeom " + c.args[0] + ": cannot write '" + c.failing + "': File too large\n");
        EXPECT_EQ(r.out.find("wrote"), std::string::npos) << r.out;
        for (const std::string& name : c.outputs)
            EXPECT_TRUE(slurp(dir / name) == old) << name;
        EXPECT_EQ(files(), before);
    }
    // Without the limit the same command replaces the old file.
    const Outcome r = run(dir, {"convert", "cap.obj", "out.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(sameMesh(dir / "out.obj", dir / "cap.obj"));
}

TEST_F(Qygeom, ASignalBeforeTheCommitWritesNothingAndOneAfterItIsIgnored)
{
    ASSERT_TRUE(
        qyGeom::meshWriteObj(qyTest::makeHemisphere(12, 32), (dir / "cap.obj").string().c_str()));
    const std::string old = "old output\n";
    for (const char* command : {"convert", "weld", "normals"})
    {
        SCOPED_TRACE(command);
        struct Case
        {
            std::string signals; // QYGEOM_TEST_SIGNALS
            int status;
            std::string err;
        };
        // Before the commit: one signal cancels (130, SIGTERM too); a second one ends the
        // program by that signal (128 + SIGINT or SIGTERM), silently. Past the point of no
        // return the command succeeds whatever arrives.
        const std::string cancelled =
            std::string("qygeom ") + command + ": cancelled; no output written\n";
        for (const Case& c :
             {Case{"written:INT", 130, cancelled}, Case{"written:TERM", 130, cancelled},
              Case{"written:INT,INT", 128 + SIGINT, ""},
              Case{"written:TERM,TERM", 128 + SIGTERM, ""},
              Case{"written:INT,TERM", 128 + SIGTERM, ""}, Case{"committing:INT,TERM", 0, ""},
              Case{"committed:INT,INT", 0, ""}})
        {
            SCOPED_TRACE(c.signals);
            std::ofstream(dir / "out.obj", std::ios::binary) << old;
            const Outcome r = run(dir, {command, "cap.obj", "out.obj"}, testSignals(c.signals));
            EXPECT_EQ(r.status, c.status) << r.err;
            EXPECT_EQ(r.err, c.err);
            EXPECT_EQ(files(), (std::vector<std::string>{"cap.obj", "out.obj"}));
            if (c.status == 0)
            {
                EXPECT_TRUE(slurp(dir / "out.obj") != old);
                EXPECT_NE(r.out.find("wrote out.obj"), std::string::npos) << r.out;
            }
            else
            {
                EXPECT_TRUE(slurp(dir / "out.obj") == old);
                EXPECT_EQ(r.out, "");
            }
        }
    }
}

TEST_F(Qygeom, CtrlCWhileTheOutputIsWrittenCancelsIt)
{
    // A real signal, sent while the staging folder exists: the write runs on, but the file
    // never replaces the old one.
    ASSERT_TRUE(
        qyGeom::meshWriteObj(qyTest::makeGrid(500, 500), (dir / "big.obj").string().c_str()));
    const std::string old = "old output\n";
    for (const int signal : {SIGINT, SIGTERM})
    {
        std::ofstream(dir / "out.obj", std::ios::binary) << old;
        const Outcome r = run(dir, {"convert", "big.obj", "out.obj"}, signalWhileWriting(signal));
        EXPECT_EQ(r.status, 130) << r.out << r.err;
        EXPECT_EQ(r.err, "qygeom convert: cancelled; no output written\n");
        EXPECT_TRUE(slurp(dir / "out.obj") == old);
        EXPECT_EQ(files(), (std::vector<std::string>{"big.obj", "out.obj"}));
    }
}

TEST_F(Qygeom, AKilledRunLeavesLitterThatTheNextRunRemoves)
{
    ASSERT_TRUE(
        qyGeom::meshWriteObj(qyTest::makeGrid(500, 500), (dir / "big.obj").string().c_str()));
    ASSERT_TRUE(
        qyGeom::meshWriteObj(qyTest::makeIcosphere(1), (dir / "small.obj").string().c_str()));
    // A run killed while writing leaves its hidden folder with a partial file; the next run
    // removes it, so that repeated kills leave only the last one's.
    for (int i = 0; i < 3; ++i)
    {
        const Outcome r = run(dir, {"convert", "big.obj", "out.obj"}, signalWhileWriting(SIGKILL));
        EXPECT_EQ(r.status, 128 + SIGKILL);
        EXPECT_EQ(stagingFolders(dir).size(), 1u);
    }
    // Folders that are not a dead run's of this host stay: this (live) process's, another
    // host's, and names not of the program's form.
    const std::string host = hostTag();
    const std::vector<std::string> kept = {
        ".qygeom-" + std::to_string(getpid()) + "-" + host + "-aaaaaa",
        ".qygeom-" + std::to_string(deadPid()) + "-other" + host + "-bbbbbb", ".qygeom-cccccc"};
    for (const std::string& name : kept)
    {
        fs::create_directory(dir / name);
        std::ofstream(dir / name / "part.obj") << "v 0 0 0\n";
    }
    const std::string stale = ".qygeom-" + std::to_string(deadPid()) + "-" + host + "-dddddd";
    fs::create_directory(dir / stale);
    std::ofstream(dir / stale / "part.obj") << "v 0 0 0\n";

    const Outcome r = run(dir, {"convert", "small.obj", "out.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> want = {"big.obj", "out.obj", "small.obj"};
    want.insert(want.end(), kept.begin(), kept.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(files(), want);
}

TEST_F(Qygeom, LinksAreWrittenThroughDevicesAndFifosDirectlyOtherKindsRefused)
{
    ASSERT_TRUE(
        qyGeom::meshWriteObj(qyTest::makeIcosphere(2), (dir / "ball.obj").string().c_str()));
    const std::string old = "old output\n";

    // A link to a regular file: the link stays, its target gets the new text.
    fs::create_directory(dir / "real");
    std::ofstream(dir / "real" / "target.obj") << old;
    fs::create_symlink("real/target.obj", dir / "link.obj");
    Outcome r = run(dir, {"convert", "ball.obj", "link.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::is_symlink(dir / "link.obj"));
    EXPECT_TRUE(sameMesh(dir / "real" / "target.obj", dir / "ball.obj"));
    EXPECT_EQ(fs::directory_iterator(dir / "real")->path().filename(), "target.obj");

    // A FIFO gets the CSV directly and stays a FIFO (the CSV is smaller than a pipe's buffer,
    // so the program does not wait for this reader).
    ASSERT_EQ(mkfifo((dir / "pipe.csv").c_str(), 0644), 0);
    const int reader = open((dir / "pipe.csv").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    r = run(dir, {"curvature", "ball.obj", "--kind", "mean", "--csv", "pipe.csv"});
    std::string piped(1 << 16, '\0');
    const ssize_t n = read(reader, piped.data(), piped.size());
    close(reader);
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(fs::is_fifo(dir / "pipe.csv"));
    piped.resize(std::size_t(std::max<ssize_t>(n, 0)));
    EXPECT_EQ(piped.rfind("vertex,x,y,z,mean\n", 0), 0u);
    EXPECT_EQ(std::count(piped.begin(), piped.end(), '\n'), 163);

    // A mesh with a material library is always staged: a FIFO there is refused, as are a
    // link to nothing; nothing is created.
    fs::remove(dir / "pipe.csv");
    ASSERT_EQ(mkfifo((dir / "pipe.obj").c_str(), 0644), 0);
    r = run(dir, {"flatten", "ball.obj", "pipe.obj"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qygeom flatten: cannot write 'pipe.obj': it is not a regular file\n");
    EXPECT_TRUE(fs::is_fifo(dir / "pipe.obj"));
    fs::create_symlink("missing.obj", dir / "dangling.obj");
    r = run(dir, {"convert", "ball.obj", "dangling.obj"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qygeom convert: cannot write 'dangling.obj': it is a symbolic link to a "
                     "missing file\n");
    EXPECT_FALSE(fs::exists(dir / "missing.obj"));

    // /dev/stdout names the file that standard output goes to: the CSV goes through that
    // stream, before the report, and /dev is left alone.
    r = run(dir, {"curvature", "ball.obj", "--kind", "gaussian", "--csv", "/dev/stdout"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("vertex,x,y,z,gaussian\n", 0), 0u) << r.out.substr(0, 200);
    EXPECT_NE(r.out.find("\ngaussian curvature at 162 vertices\n"), std::string::npos);
    EXPECT_TRUE(fs::is_symlink("/dev/stdout"));
    r = run(dir, {"flatten", "ball.obj", "flat.obj", "--svg", "/dev/null"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    EXPECT_EQ(slurp("/dev/null"), "");
    r = run(dir, {"curvature", "ball.obj", "--kind", "mean", "--csv", "/dev/qygeom-test.csv"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qygeom curvature: cannot write '/dev/qygeom-test.csv': in /dev only "
                     "devices are written\n");
    EXPECT_FALSE(fs::exists("/dev/qygeom-test.csv"));
    for (const auto& e : fs::directory_iterator("/dev"))
        EXPECT_FALSE(e.path().filename().string().starts_with(".qygeom-")) << e.path();
}

TEST_F(Qygeom, InfoCountsTrianglesWithoutAreaAsDegenerate)
{
    // Triangle 2 has three distinct corners on one line; triangle 3 names vertex 5, at the
    // place of vertex 1, so welding gives it a repeated corner.
    std::ofstream(dir / "flat.obj") << "v 0 0 0\nv 1 0 0\nv 2 0 0\nv 0 1 0\nv 0 0 0\n"
                                       "f 1 2 4\nf 1 2 3\nf 1 4 5\n";
    const Outcome r = run(dir, {"info", "flat.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("  degenerate triangles: 2 (repeated corner or no area)\n"),
              std::string::npos)
        << r.out;
}

} // namespace

namespace
{

// A disk of two quads, two triangles and a hexagon at survey coordinates, with texture
// coordinates, normals, two groups under two materials, and a vertex that no face uses.
const char* const surveyObj = "mtllib survey.mtl\n"
                              "v 500123.25 4100456.50 12.125\n"
                              "v 500124.75 4100456.50 12.125\n"
                              "v 500126.25 4100456.50 12.125\n"
                              "v 500127.75 4100456.50 12.125\n"
                              "v 500123.25 4100457.75 12.125\n"
                              "v 500124.75 4100457.75 12.1875\n"
                              "v 500126.25 4100457.75 12.25\n"
                              "v 500127.75 4100457.75 12.3125\n"
                              "v 500123.25 4100459 12.125\n"
                              "v 500124.75 4100459 12.25\n"
                              "v 500126.25 4100459 12.375\n"
                              "v 1e7 -3 0.1\n"
                              "vt 0.1 0.2\nvt 0.3 0.2\nvt 0.7 0.2\nvt 0.9 0.2\n"
                              "vt 0.1 0.6\nvt 0.3 0.6\nvt 0.7 0.6\nvt 0.9 0.6\n"
                              "vt 0.1 0.9\nvt 0.3 0.9\nvt 0.7 0.9\n"
                              "vn 0 0 1\nvn 0 0.1 0.99\n"
                              "g bottom\nusemtl red\n"
                              "f 1/1/1 2/2/1 6/6/1 5/5/1\n"
                              "f 2/2/1 3/3/1 7/7/1 6/6/1\n"
                              "f 3/3/1 4/4/1 8/8/1\n"
                              "f 3/3/1 8/8/1 7/7/1\n"
                              "g top\nusemtl blue\n"
                              "f 5/5/2 6/6/2 7/7/2 11/11/2 10/10/2 9/9/2\n";

int countLines(const std::string& text, const std::string& prefix)
{
    int n = 0;
    for (std::size_t at = 0; at < text.size();)
    {
        n += text.compare(at, prefix.size(), prefix) == 0;
        const std::size_t nl = text.find('\n', at);
        at = nl == std::string::npos ? text.size() : nl + 1;
    }
    return n;
}

// The "v" lines of an OBJ file as float32 triples, sorted (welding reorders vertices).
std::vector<std::array<float, 3>> positions(const std::string& text)
{
    std::vector<std::array<float, 3>> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.starts_with("v "))
        {
            std::array<float, 3> p{};
            char* at = line.data() + 2;
            for (float& x : p)
                x = std::strtof(at, &at);
            out.push_back(p);
        }
    std::sort(out.begin(), out.end());
    return out;
}

// Face lines by corner count.
std::map<int, int> faceSizes(const std::string& text)
{
    std::map<int, int> sizes;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.starts_with("f "))
        {
            std::istringstream corners(line.substr(2));
            int n = 0;
            for (std::string c; corners >> c;)
                ++n;
            ++sizes[n];
        }
    return sizes;
}

} // namespace

TEST_F(Qygeom, CommandsReadPolygonsAndKeepAttributesAndExactNumbers)
{
    std::ofstream(dir / "survey.obj") << surveyObj;
    std::ofstream(dir / "survey.mtl") << "newmtl red\nKd 1 0 0\n\nnewmtl blue\nKd 0 0 1\n";
    const std::string input = slurp(dir / "survey.obj");
    const auto inputPositions = positions(input);

    Outcome r = run(dir, {"info", "survey.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    for (const char* line :
         {"  vertices:            12\n",
          "  unreferenced vertices: 1 (no face uses them; left out of the topology below)\n",
          "  faces:               5 (2 triangles, 2 quads, 1 larger polygons)\n",
          "  triangles:           10 (the polygons split into 8)\n", "  texture coordinates: 11\n",
          "  normals:             2\n",
          "  edges:               15 (10 on a boundary, 0 non-manifold)\n",
          "  components:          1\n", "  boundary loops:      1\n", "  Euler characteristic: 1\n",
          "  genus:               0\n", "  texture charts:      1\n",
          "  materials:           2 (red, blue)\n", "  material library:    survey.mtl\n",
          "  groups:              2\n",
          "  bounding box:        (500123.25, -3, 0.100000001) to (10000000, 4100459, 12.375)\n"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;

    // Each command writes the attributes it does not change as they were, and numbers that
    // read back to the same float32.
    struct Case
    {
        std::vector<std::string> args;
        int vt, vn, usemtl;
        std::map<int, int> faces; // corner count -> faces
    };
    const std::vector<Case> cases = {
        {{"convert", "survey.obj", "out.obj"}, 11, 2, 2, {{3, 2}, {4, 2}, {6, 1}}},
        {{"weld", "survey.obj", "out.obj"}, 11, 2, 2, {{3, 2}, {4, 2}, {6, 1}}},
        {{"normals", "survey.obj", "out.obj"}, 11, 12, 2, {{3, 2}, {4, 2}, {6, 1}}},
        {{"flatten", "survey.obj", "out.obj"}, 11, 2, 2, {{3, 10}}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.args[0]);
        r = run(dir, c.args);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        const std::string out = slurp(dir / "out.obj");
        EXPECT_EQ(countLines(out, "vt "), c.vt) << out;
        EXPECT_EQ(countLines(out, "vn "), c.vn);
        EXPECT_EQ(countLines(out, "usemtl "), c.usemtl);
        EXPECT_EQ(countLines(out, "g "), 2);
        EXPECT_EQ(out.rfind("mtllib survey.mtl\n", 0), 0u);
        EXPECT_EQ(faceSizes(out), c.faces);
        EXPECT_EQ(positions(out), inputPositions);
        EXPECT_NE(out.find("v 500123.25 4100456.5 12.125\n"), std::string::npos);
        if (c.args[0] == "flatten")
        {
            EXPECT_NE(r.out.find("triangulated 3 polygons into 8 triangles\n"), std::string::npos)
                << r.out;
            EXPECT_NE(r.out.find("1 vertices that no face uses take no part in the layout"),
                      std::string::npos)
                << r.out;
            EXPECT_NE(r.out.find(", 0 flipped, 0 without area, 0% of the covered area overlapped "
                                 "(0 triangles)\n"),
                      std::string::npos)
                << r.out;
            EXPECT_FALSE(fs::exists(dir / "out.mtl")); // the input's materials are kept
        }
        else
            EXPECT_EQ(r.out.find("triangulated"), std::string::npos) << r.out;
        // What the commands write, the strict parser reads.
        EXPECT_EQ(run(dir, {"check", "out.obj"}).status, 0);
    }

    // The minimal format keeps positions and triangles, and says in one line what it drops;
    // its numbers come back to the same float32 as well.
    r = run(dir, {"convert", "survey.obj", "out.qym"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "qygeom convert: warning: the minimal format (.qym) holds positions and "
                     "triangles only; left out 11 texture coordinates, 2 normals, 2 materials, 2 "
                     "groups, 1 material libraries\n");
    EXPECT_NE(r.out.find("triangulated 3 polygons into 8 triangles\n"), std::string::npos);
    r = run(dir, {"convert", "out.qym", "back.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(positions(slurp(dir / "back.obj")), inputPositions);

    // Fewer digits only when asked: six digits merge the survey points.
    r = run(dir, {"--precision", "6", "convert", "survey.obj", "six.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(slurp(dir / "six.obj").find("v 500123 4.10046e+06 12.125\n"), std::string::npos);
    EXPECT_EQ(run(dir, {"--precision", "0", "info", "survey.obj"}).status, 2);
}

TEST_F(Qygeom, RefusalsAndWarningsNameTheFileTheLineAndTheReason)
{
    std::ofstream(dir / "survey.obj") << surveyObj;
    // An error inside the material library is reported against the library, with its line.
    std::ofstream(dir / "survey.mtl") << "newmtl red\nKd 1 0 0\nmap_Kd \"a b.png\"\n";
    Outcome r = run(dir, {"check", "survey.obj"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qygeom check: survey.mtl: line 3: Lexical analysis failed (a character "
                     "that material libraries may not hold)\n");
    std::ofstream(dir / "survey.mtl") << "newmtl red\nKe 1 0 0\n";
    r = run(dir, {"check", "survey.obj"});
    EXPECT_EQ(r.err, "qygeom check: survey.mtl: Parse failed on line 2: expecting 'newmtl' or "
                     "end of file\n");
    fs::remove(dir / "survey.mtl");
    r = run(dir, {"check", "survey.obj"});
    EXPECT_EQ(r.err, "qygeom check: survey.obj: line 1: cannot open the material library "
                     "'survey.mtl'\n");
    fs::create_directory(dir / "folder.obj");
    r = run(dir, {"check", "folder.obj"});
    EXPECT_EQ(r.err, "qygeom check: cannot read 'folder.obj': it is a directory\n");

    // Outputs: one name per output, an SVG named .svg, and a missing folder refused before
    // any work (nothing on standard output).
    r = run(dir, {"flatten", "survey.obj", "flat.obj", "--svg", "flat.mtl"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("ends in .svg"), std::string::npos) << r.err;
    std::ofstream(dir / "flat.obj") << "old\n";
    fs::create_symlink("flat.obj", dir / "pic.svg");
    r = run(dir, {"flatten", "survey.obj", "flat.obj", "--svg", "pic.svg"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("name the same file"), std::string::npos) << r.err;
    EXPECT_EQ(slurp(dir / "flat.obj"), "old\n");
    r = run(dir, {"flatten", "survey.obj", "missing/flat.obj"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qygeom flatten: cannot write 'missing/flat.obj': no directory 'missing'\n");

    // A line longer than the library reader takes is read whole, and info says so.
    std::ofstream(dir / "long.obj") << "# " << std::string(20000, 'x') << "\n" << surveyObj;
    r = run(dir, {"info", "long.obj"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "qygeom info: warning: line 1 is 20002 bytes long; the library's OBJ "
                     "reader (meshReadObj) reads lines of at most 16383 bytes\n");
    // Statements the program does not read, and numbers it cannot, are said.
    std::ofstream(dir / "lines.obj") << surveyObj << "l 1 2\nl 2 3\n";
    r = run(dir, {"convert", "lines.obj", "out.obj"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "qygeom convert: warning: left out 2 'l' lines (statements that qygeom "
                     "does not read)\n");
    std::ofstream(dir / "inf.obj") << "v 0 0 0\nv 1 0 0\nv 0 1e39 0\nf 1 2 3\n";
    r = run(dir, {"info", "inf.obj"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qygeom info: cannot read 'inf.obj': line 3: a vertex has a number that "
                     "is not finite in single precision\n");

    // The environment's thread count is checked as --threads is; --version answers.
    const char* set = std::getenv("QYGEOM_THREADS");
    const std::string threads = set ? set : "";
    for (const char* bad : {"0", "abc", "100000"})
    {
        setenv("QYGEOM_THREADS", bad, 1);
        r = run(dir, {"info", "survey.obj"});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err.rfind("qygeom: warning: QYGEOM_THREADS='" + std::string(bad) +
                                  "' is not a number from 1 to 1024; using ",
                              0),
                  0u)
            << r.err;
    }
    if (set)
        setenv("QYGEOM_THREADS", threads.c_str(), 1);
    else
        unsetenv("QYGEOM_THREADS");
    r = run(dir, {"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("qygeom ", 0), 0u);
}
