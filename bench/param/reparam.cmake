# Reparameterization benchmarks: flattening time and layout quality.
qygeom_add_benchmark(reparamBench ${CMAKE_CURRENT_LIST_DIR}/reparameterizeMeshBench.cpp)
