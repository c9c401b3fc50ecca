// qyOS::Filename.
#include "base/Filename.h"

namespace qyOS
{
namespace
{

std::size_t nameStart(const qyString::CString& path)
{
    const std::size_t slash = path.find_last_of('/');
    return slash == qyString::CString::npos ? 0 : slash + 1;
}

// Position of the extension's dot inside the path, or npos.
std::size_t extensionDot(const qyString::CString& path)
{
    const std::size_t start = nameStart(path);
    const std::size_t dot = path.find_last_of('.');
    if (dot == qyString::CString::npos || dot <= start)
        return qyString::CString::npos;
    return dot;
}

} // namespace

qyString::CString Filename::getDirectory() const
{
    const std::size_t start = nameStart(m_path);
    if (start == 0)
        return {};
    if (start == 1)
        return "/";
    return m_path.substr(0, start - 1);
}

qyString::CString Filename::getName() const
{
    return m_path.substr(nameStart(m_path));
}

qyString::CString Filename::getBaseName() const
{
    const std::size_t start = nameStart(m_path);
    const std::size_t dot = extensionDot(m_path);
    return m_path.substr(start,
                         dot == qyString::CString::npos ? qyString::CString::npos : dot - start);
}

qyString::CString Filename::getExtension() const
{
    const std::size_t dot = extensionDot(m_path);
    return dot == qyString::CString::npos ? qyString::CString() : m_path.substr(dot + 1);
}

Filename Filename::withExtension(const qyString::IString& ext) const
{
    const std::size_t dot = extensionDot(m_path);
    qyString::CString p = m_path.substr(0, dot);
    if (!ext.empty())
        p += "." + ext;
    return Filename(std::move(p));
}

Filename Filename::sibling(const qyString::IString& name) const
{
    const std::size_t start = nameStart(m_path);
    return Filename(m_path.substr(0, start) + name);
}

Filename Filename::join(const qyString::IString& dir, const qyString::IString& name)
{
    if (dir.empty() || (!name.empty() && name.front() == '/'))
        return Filename(name);
    if (dir.back() == '/')
        return Filename(dir + name);
    return Filename(dir + "/" + name);
}

} // namespace qyOS
