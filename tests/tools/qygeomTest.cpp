// Drives the qygeom program as a user would: commands on files written here, the demo,
// errors, and a run cancelled with Ctrl-C.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "qyGeom/meshWriteObj.h"
#include "testMeshes.h"

namespace
{

namespace fs = std::filesystem;

struct Outcome
{
    int status = -1; // exit status, or 128 + signal
    std::string out, err;
};

std::string slurp(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Runs qygeom with `args` in `dir`; when `interruptAfter` is not empty, sends SIGINT once
// standard error contains that text.
Outcome run(const fs::path& dir, const std::vector<std::string>& args,
            const std::string& interruptAfter = {})
{
    const fs::path outFile = dir / ".stdout", errFile = dir / ".stderr";
    const pid_t pid = fork();
    if (pid == 0)
    {
        if (chdir(dir.c_str()) != 0)
            _exit(127);
        const int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        dup2(err, 2);
        std::vector<char*> argv{const_cast<char*>(QYGEOM_EXE)};
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(QYGEOM_EXE, argv.data());
        _exit(127);
    }
    Outcome result;
    int status = 0;
    if (!interruptAfter.empty())
    {
        bool sent = false;
        while (waitpid(pid, &status, WNOHANG) == 0)
        {
            if (!sent && slurp(errFile).find(interruptAfter) != std::string::npos)
            {
                kill(pid, SIGINT);
                sent = true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    else
        waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = slurp(outFile);
    result.err = slurp(errFile);
    fs::remove(outFile);
    fs::remove(errFile);
    return result;
}

class Qygeom : public ::testing::Test
{
protected:
    void SetUp() override
    {
        dir = fs::temp_directory_path() /
              ("qygeom-test-" + std::to_string(getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }

    // Files in dir, hidden staging folders included, apart from the captured streams.
    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir))
            names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    fs::path dir;
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
    EXPECT_NE(r.err.find("qygeom flatten: the mesh could not be flattened"), std::string::npos)
        << r.err;
    EXPECT_FALSE(fs::exists(dir / "ball-flat.obj"));
}

TEST_F(Qygeom, ACancelledFlattenLeavesNoFileBehind)
{
    ASSERT_TRUE(
        qyGeom::meshWriteObj(qyTest::makeHemisphere(150, 400), (dir / "big.obj").string().c_str()));
    // The welding of the working copy prints its header line when flattening has begun.
    const Outcome r = run(dir, {"--verbose", "flatten", "big.obj", "out.obj", "--svg", "out.svg"},
                          "meshCompact:");
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

} // namespace
