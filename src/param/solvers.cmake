# Sparse matrix, conjugate gradient with its preconditioners, cotangent weights and curvature.
target_sources(GeometryAlg PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/ConjugateGradient.cpp
    ${CMAKE_CURRENT_LIST_DIR}/SparseMatrix.cpp
)
