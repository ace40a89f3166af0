// What the benchmarks measure with.

#pragma once

#include <malloc.h>

#include <chrono>
#include <cstddef>
#include <functional>

namespace Vel {

/// How long the work takes, by the clock on the wall.
inline double secondsOf( const std::function< void() >& work ) {
   const auto begin = std::chrono::steady_clock::now();
   work();
   return std::chrono::duration< double >( std::chrono::steady_clock::now() - begin ).count();
}

/// Bytes of the heap that are in use.
inline size_t heapBytes() {
   const auto info = mallinfo2();
   return info.uordblks + info.hblkhd;
}

} // namespace Vel
