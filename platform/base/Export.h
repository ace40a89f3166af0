// Which names leave the shared library.
//
// The library is compiled with hidden visibility: a class or function that users may touch says so
// with VEL_EXPORT; everything else stays inside, is free to change and costs no symbol look-up.
//
//   class VEL_EXPORT Foo { ... };   member functions, virtual table and type information
//   VEL_EXPORT void foo();          a free function
//   VEL_HIDDEN void foo();          a member function that only the library's own sources call
//
// A class that is thrown, or that users derive from or cast to, needs the mark even when all its
// functions are inline: without it each side has a type of its own. Templates and plain inline
// value types need nothing.
//
// With VEL_STATIC, which the static library defines for itself and for its users, nothing is
// marked, so that a shared object that links the static library does not hand its names on.

#pragma once

#if defined( VEL_STATIC )
#define VEL_EXPORT
#define VEL_HIDDEN
#else
#define VEL_EXPORT __attribute__( ( visibility( "default" ) ) )
#define VEL_HIDDEN __attribute__( ( visibility( "hidden" ) ) )
#endif
