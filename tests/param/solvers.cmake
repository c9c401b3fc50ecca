# Tests of the sparse matrix, the conjugate-gradient solver, cotangents and curvature.
qygeom_add_test_suite(solverTests
    ${CMAKE_CURRENT_LIST_DIR}/ConjugateGradientTest.cpp
    ${CMAKE_CURRENT_LIST_DIR}/SparseMatrixTest.cpp
)
