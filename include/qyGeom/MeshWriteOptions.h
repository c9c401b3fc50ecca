// MeshWriteOptions: how the mesh writers format numbers.
#pragma once

namespace qyGeom
{

/// How the writers format numbers.
struct MeshWriteOptions
{
    /// Significant digits of every coordinate, normal, texture coordinate and colour, written
    /// as printf's "%.<digits>g" would. 0 keeps each writer's own format: 6 digits in OBJ (an
    /// output stream's default) and 10 in the minimal format. 9 digits read back to the same
    /// float32 for every finite value; fewer make smaller files that lose precision (6
    /// digits turn 4100456.5 into 4.10046e+06). Values outside 1 to 17 count as 0.
    int digits = 0;
};

} // namespace qyGeom
