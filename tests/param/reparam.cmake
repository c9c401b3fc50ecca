# Reparameterization: conformal flattening, cutting to a disk, polygon triangulation.
qygeom_add_test_suite(reparamTests
    ${CMAKE_CURRENT_LIST_DIR}/cutSurfaceTest.cpp
    ${CMAKE_CURRENT_LIST_DIR}/polygonTriangulateTest.cpp
    ${CMAKE_CURRENT_LIST_DIR}/reparameterizeMeshTest.cpp
)
