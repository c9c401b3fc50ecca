// qy containers: the library's container names, aliases of the standard ones so that
// callers pass standard types straight through.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace qy
{

template <class T> using vector = std::vector<T>;
template <class T> using list = std::list<T>;
template <class K, class V, class Less = std::less<K>> using map = std::map<K, V, Less>;
template <class K, class V, class Less = std::less<K>> using multimap = std::multimap<K, V, Less>;
template <class K, class Less = std::less<K>> using set = std::set<K, Less>;
template <class K, class Hash = std::hash<K>, class Eq = std::equal_to<K>>
using unordered_set = std::unordered_set<K, Hash, Eq>;
template <class K, class V, class Hash = std::hash<K>, class Eq = std::equal_to<K>>
using unordered_map = std::unordered_map<K, V, Hash, Eq>;
/// A growable array; the same as vector.
template <class T> using Array = std::vector<T>;

} // namespace qy
