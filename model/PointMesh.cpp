// PointMesh: per-vertex arrays kept as one list of attribute arrays, so that resizing and
// renumbering treat every array the same way.
#include "model/PointMesh.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "model/MeshModification.h"
#include "model/Remap.h"

namespace qyGeom
{

const char* const PointMesh::VerticesName = "vertices";
const char* const PointMesh::NormalsName = "normals";
const char* const PointMesh::UVsName = "uvs";
const char* const PointMesh::STsName = "sts";
const char* const PointMesh::ColoursName = "colours";

namespace
{

int reservedComponents(const std::string& name)
{
    if (name == PointMesh::VerticesName || name == PointMesh::NormalsName)
        return 3;
    if (name == PointMesh::UVsName || name == PointMesh::STsName)
        return 2;
    if (name == PointMesh::ColoursName)
        return 4;
    return 0;
}

} // namespace

PointMesh::PointMesh() : m_allocator(ArrayAllocator::getDefault())
{
    m_vertices = addAttributes(VerticesName, 3);
}

PointMesh::PointMesh(int n, const MeshVertex* vertices, const MeshNormal* normals,
                     const MeshUV* uvs, const MeshColour* colours)
    : PointMesh()
{
    copyVertices(n, vertices);
    if (normals)
    {
        allocNormalArray();
        std::memcpy(getNormals(), normals, sizeof(MeshNormal) * std::size_t(getNumVertices()));
    }
    if (uvs)
    {
        allocUVArray();
        std::memcpy(getUVs(), uvs, sizeof(MeshUV) * std::size_t(getNumVertices()));
    }
    if (colours)
    {
        allocColourArray();
        std::memcpy(getColours(), colours, sizeof(MeshColour) * std::size_t(getNumVertices()));
    }
}

PointMesh::PointMesh(const PointMesh& other)
    : qyRTB::Entity(), m_selectedVertices(other.m_selectedVertices), m_allocator(other.m_allocator)
{
    for (const auto& a : other.m_attributes)
        m_attributes.push_back(std::make_unique<MeshAttributes>(*a));
    refreshSlots();
}

PointMesh& PointMesh::operator=(const PointMesh& other)
{
    if (this != &other)
    {
        PointMesh copy(other);
        copy.setArrayAllocator(getArrayAllocator()); // the target keeps its own allocator
        swapVertexData(copy);
        notifyReplaced();
    }
    return *this;
}

PointMesh::~PointMesh() = default;

void PointMesh::swapVertexData(PointMesh& other) noexcept
{
    m_attributes.swap(other.m_attributes);
    m_selectedVertices = std::exchange(other.m_selectedVertices, std::move(m_selectedVertices));
    m_allocator.swap(other.m_allocator);
    refreshSlots();
    other.refreshSlots();
}

void PointMesh::notifyReplaced()
{
    MeshModification replaced(this, MeshModification::Remapped, nullptr);
    getModifiedSignal().emit(replaced);
}

MeshAttributes** PointMesh::slotFor(const std::string& name)
{
    if (name == VerticesName)
        return &m_vertices;
    if (name == NormalsName)
        return &m_normals;
    if (name == UVsName)
        return &m_uvs;
    if (name == STsName)
        return &m_sts;
    if (name == ColoursName)
        return &m_colours;
    return nullptr;
}

void PointMesh::setSlot(const std::string& name, MeshAttributes* a)
{
    if (MeshAttributes** slot = slotFor(name))
        *slot = a;
}

void PointMesh::refreshSlots()
{
    m_vertices = m_normals = m_uvs = m_sts = m_colours = nullptr;
    for (const auto& a : m_attributes)
        setSlot(a->getName(), a.get());
}

MeshAttributes* PointMesh::findAttributes(const std::string& name) const
{
    for (const auto& a : m_attributes)
        if (a->getName() == name)
            return a.get();
    return nullptr;
}

MeshAttributes* PointMesh::addAttributes(const std::string& name, int numComponents)
{
    const int n = m_vertices ? getNumVertices() : 0;
    m_attributes.push_back(std::make_unique<MeshAttributes>(name, numComponents, n, m_allocator));
    MeshAttributes* a = m_attributes.back().get();
    setSlot(name, a);
    return a;
}

MeshAttributes* PointMesh::getAttributes(const std::string& name)
{
    return findAttributes(name);
}

const MeshAttributes* PointMesh::getAttributes(const std::string& name) const
{
    return findAttributes(name);
}

void PointMesh::getAttributeNames(std::set<std::string>& names) const
{
    for (const auto& a : m_attributes)
        names.insert(a->getName());
}

MeshAttributes* PointMesh::allocAttributes(const std::string& name, int numComponents)
{
    const int reserved = reservedComponents(name);
    if (numComponents < 1 || numComponents > 4 || (reserved && reserved != numComponents))
        return nullptr;
    if (MeshAttributes* a = findAttributes(name))
        return a->getNumComponents() == numComponents ? a : nullptr;
    return addAttributes(name, numComponents);
}

void PointMesh::deleteAttributes(const std::string& name)
{
    if (name == VerticesName)
        return;
    auto it = std::find_if(m_attributes.begin(), m_attributes.end(),
                           [&](const auto& a) { return a->getName() == name; });
    if (it == m_attributes.end())
        return;
    setSlot(name, nullptr);
    m_attributes.erase(it);
}

void PointMesh::setNormalsComputed(bool computed)
{
    if (m_normals)
        m_normals->setComputed(computed);
}

void PointMesh::allocNormalArray()
{
    allocAttributes(NormalsName, 3);
}
void PointMesh::allocUVArray()
{
    allocAttributes(UVsName, 2);
}
void PointMesh::allocSTArray()
{
    allocAttributes(STsName, 2);
}
void PointMesh::allocColourArray()
{
    allocAttributes(ColoursName, 4);
}
void PointMesh::deleteNormals()
{
    deleteAttributes(NormalsName);
}
void PointMesh::deleteUVs()
{
    deleteAttributes(UVsName);
}
void PointMesh::deleteSTs()
{
    deleteAttributes(STsName);
}
void PointMesh::deleteColours()
{
    deleteAttributes(ColoursName);
}

void PointMesh::resizeVertexArray(int n)
{
    n = std::max(n, 0);
    for (const auto& a : m_attributes)
        a->resize(n);
    if (n > m_selectedVertices.size())
        m_selectedVertices.resize(n);
}

void PointMesh::copyVertices(int n, const MeshVertex* vertices)
{
    n = std::max(n, 0);
    m_vertices->storage().assign(n, vertices);
    for (const auto& a : m_attributes)
        if (a.get() != m_vertices)
            a->resize(n);
    if (n > m_selectedVertices.size())
        m_selectedVertices.resize(n);
}

void PointMesh::modified(MeshModification& modification)
{
    applyModification(modification);
    getModifiedSignal().emit(modification);
}

void PointMesh::applyModification(const MeshModification& mod)
{
    using M = MeshModification;
    const bool moved = mod.getType() == M::PositionsChanged || mod.getType() == M::Remapped;
    const Remap* vertexRemap = mod.getVertexRemap();
    const bool renumbered = vertexRemap && !vertexRemap->isSequential();

    // Drop computed arrays that the change made stale. Positions never count as derived.
    std::vector<std::string> stale;
    for (const auto& a : m_attributes)
    {
        if (a.get() == m_vertices || !a->isComputed())
            continue;
        bool keep;
        if (a.get() == m_normals)
            keep = !moved || mod.has(M::NormalsModified) || mod.has(M::NormalsValid);
        else if (a.get() == m_uvs)
            keep = !renumbered || mod.has(M::UVsModified) || mod.has(M::UVsValid);
        else if (a.get() == m_sts)
            keep = !renumbered || mod.has(M::STsModified) || mod.has(M::STsValid);
        else if (a.get() == m_colours)
            keep = !renumbered || mod.has(M::ColoursValid);
        else
            keep = !moved || mod.isAttributeModified(a->getName());
        if (!keep)
            stale.push_back(a->getName());
    }
    for (const std::string& name : stale)
        deleteAttributes(name);

    if (renumbered)
        remapBits(m_selectedVertices, *vertexRemap, getNumVertices());
    else if (m_selectedVertices.size() != getNumVertices())
        m_selectedVertices.resize(getNumVertices());
}

int PointMesh::getSizeInBytes() const
{
    std::size_t bytes =
        sizeof(*this) + sizeof(BitVector::Word) * std::size_t(m_selectedVertices.getNumWords());
    for (const auto& a : m_attributes)
        bytes += sizeof(MeshAttributes) + a->storage().getSizeInBytes();
    return int(std::min<std::size_t>(bytes, INT_MAX));
}

void PointMesh::setArrayAllocator(qy::Reference<ArrayAllocator> allocator)
{
    if (!allocator)
        allocator = ArrayAllocator::getDefault();
    for (const auto& a : m_attributes)
        a->storage().setAllocator(allocator);
    m_allocator = std::move(allocator);
}

} // namespace qyGeom
