# Benchmarks of the conjugate-gradient solver and of curvature.
qygeom_add_benchmark(solverBench
    ${CMAKE_CURRENT_LIST_DIR}/ConjugateGradientBench.cpp
    ${CMAKE_CURRENT_LIST_DIR}/meshCurvatureBench.cpp
    ${CMAKE_CURRENT_LIST_DIR}/solverBenchMain.cpp
)
