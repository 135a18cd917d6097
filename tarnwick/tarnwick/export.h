// The mark of tarnwick's public API. The library is built with hidden
// visibility: only the classes and functions marked TARNWICK_EXPORT are in
// its dynamic symbol table, so a program links against the API and nothing
// behind it.
//
//   class TARNWICK_EXPORT Engine { ... };
//   TARNWICK_EXPORT int to_utf8(...);
//
// A class template needs no mark (its code is built in the program that
// uses it), but the non-template classes it derives from do. Exception types
// need it so that a program can catch them.
#pragma once

#define TARNWICK_EXPORT __attribute__((visibility("default")))
