# Reparameterization: conformal flattening, cutting to a disk, polygon triangulation.
target_sources(GeometryAlg PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/cutSurface.cpp
    ${CMAKE_CURRENT_LIST_DIR}/polygonTriangulate.cpp
    ${CMAKE_CURRENT_LIST_DIR}/reparameterizeMesh.cpp
)
