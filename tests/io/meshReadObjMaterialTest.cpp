// The MTL reader (meshReadObjMaterial).
#include "qyGeom/meshReadObjMaterial.h"

#include <string>

#include <gtest/gtest.h>

#include "ioTestUtil.h"

using namespace qyGeom;
using qyIoTest::writeFile;

namespace
{

qyUtil::Error readMtl(const std::string& text, qy::vector<qy::Reference<MeshObjMaterial>>& out)
{
    return meshReadObjMaterial(writeFile("m.mtl", text), out);
}

} // namespace

TEST(MeshReadObjMaterial, TokensGrammarAndMessages)
{
    qy::vector<qy::Reference<MeshObjMaterial>> m;
    qyUtil::Error e = readMtl("# comment line first\n"
                              "newmtl mat0\n"
                              "Kd 1 0 0\r\n"
                              "Ka .5 1e-1 -1.5e-3\n"
                              "Tr 0.25\n"
                              "\n"
                              "illum 2\n# comment\n"
                              "Ns 100.0\nNi 1.5\nTf 1 1 1\n"
                              "map_Kd tex/a.png\nmap_Ka a\nmap_Ks s\n"
                              "newmtl other\nd 0.25",
                              m);
    ASSERT_FALSE(e) << e.message();
    ASSERT_EQ(m.size(), 2u);
    const MeshObjMaterial& a = *m[0];
    EXPECT_EQ(a.getName(), "mat0");
    EXPECT_EQ(a.getMask(), 1u | 2u | 8u | 16u | 32u | 64u | 128u);
    EXPECT_EQ(std::vector<float>(a.diffuse, a.diffuse + 4), (std::vector<float>{1, 0, 0, 1}));
    EXPECT_EQ(std::vector<float>(a.ambient, a.ambient + 3),
              (std::vector<float>{.5f, .1f, -1.5e-3f}));
    EXPECT_EQ(a.dissolve, 0.25f);
    EXPECT_EQ(m[1]->dissolve, 0.25f);
    EXPECT_EQ(m[1]->getMask(), unsigned(MeshObjMaterial::Dissolve));
    EXPECT_EQ(a.illumination, 2);
    EXPECT_EQ(a.diffuseMap, "tex/a.png");
    EXPECT_FALSE(a.has(MeshObjMaterial::Specular));

    const struct
    {
        std::string text;
        std::string message;
    } cases[] = {
        {"\nnewmtl a\n", "Parse failed on line 1: expecting 'newmtl' or end of file\n"},
        {"newmtl a\nNs 100.0\nKe 0.0 0.0 0.0\n",
         "Parse failed on line 3: expecting 'newmtl' or end of file\n"},
        {"newmtl a\nillum 2.0\n", "Parse failed on line 2: expecting integer\n"},
        // A comment takes its line end with it.
        {"newmtl a\nillum 2 # c\nNs 1\n", "Parse failed on line 3: expecting newline\n"},
        {"newmtl a\nKd 1 0\n", "Parse failed on line 2: expecting number\n"},
        {"newmtl a\nKd 1 0 0 0\n", "Parse failed on line 2: expecting newline\n"},
        {"newmtl\n", "Parse failed on line 1: expecting name\n"},
        {"newmtl 12\n", "Parse failed on line 1: expecting name\n"},
        {"newmtl a b\n", "Parse failed on line 1: expecting newline\n"},
        {"newmtl a\nmap_Kd 1\n", "Parse failed on line 2: expecting name\n"},
        {"newmtl a\nKd 1 @ 0\n", "Lexical analysis failed"},
        {"newmtl \"a\"\n", "Lexical analysis failed"},
        {"newmtl a\rKd 1 0 0\n", "Lexical analysis failed"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.text);
        e = readMtl(c.text, m);
        EXPECT_EQ(e.message(), c.message);
        EXPECT_EQ(e.code(), c.message.rfind("Parse", 0) == 0 ? 2 : 1);
    }
    EXPECT_EQ(meshReadObjMaterial("/nonexistent.mtl", m).message(), "Lexical analysis failed");
    EXPECT_FALSE(readMtl("", m));
    EXPECT_TRUE(m.empty());
    EXPECT_FALSE(readMtl("# only a comment", m));
}
