// The program's built-in mesh for the demo: a rippled dome, open at its rim.
#pragma once

#include <string>

namespace qyCli
{

/// OBJ text of a dome of `rings` rings of `segments` triangles around the pole: a spherical
/// cap of 75 degrees with gentle ripples, so it has one boundary, curvature of both signs
/// and no texture coordinates. Every face carries its own three "v" lines, as an exporter
/// of triangle soups writes them, so reading it has welding to do.
std::string demoMeshObj(int rings, int segments);

} // namespace qyCli
