// qyOS::Filename: a file path with its parts (directory, base name, extension).
#pragma once

#include "base/String.h"
#include "qyGeom/qyGeomExport.h"

namespace qyOS
{

/// A path as text, split on '/' (and '\\' on no platform: backslashes are ordinary
/// characters). The parts of "dir/sub/mesh.v2.obj" are directory "dir/sub", name
/// "mesh.v2.obj", base name "mesh.v2" and extension "obj". A name that starts with its only
/// dot (".hidden") has no extension.
class QYGEOM_API Filename
{
public:
    Filename() = default;
    Filename(const char* path) : m_path(path ? path : "") {}
    Filename(qyString::IString path) : m_path(std::move(path)) {}

    const qyString::CString& str() const { return m_path; }
    const char* c_str() const { return m_path.c_str(); }
    bool empty() const { return m_path.empty(); }

    /// Everything before the last separator; "" for a bare name, "/" for a file in the root.
    qyString::CString getDirectory() const;
    /// The last component, extension included.
    qyString::CString getName() const;
    /// The last component without its extension and the dot before it.
    qyString::CString getBaseName() const;
    /// The text after the last dot of the last component, without the dot; "" when none.
    qyString::CString getExtension() const;

    /// This path with its extension replaced (or added): ext without the dot; "" removes it.
    Filename withExtension(const qyString::IString& ext) const;
    /// A sibling file: the same directory, another name.
    Filename sibling(const qyString::IString& name) const;
    /// dir joined with name by exactly one separator; an absolute name is returned as is.
    static Filename join(const qyString::IString& dir, const qyString::IString& name);

    bool operator==(const Filename&) const = default;

private:
    qyString::CString m_path;
};

} // namespace qyOS
