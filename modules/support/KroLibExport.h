#pragma once

// KROLIB_EXPORT marks the classes and functions that the shared library makes
// visible; everything else is built with hidden visibility.
#if defined(_WIN32)
#  if defined(KROLIB_BUILDING_LIBRARY)
#    define KROLIB_EXPORT __declspec(dllexport)
#  else
#    define KROLIB_EXPORT __declspec(dllimport)
#  endif
#elif defined(__GNUC__)
#  define KROLIB_EXPORT __attribute__((visibility("default")))
#else
#  define KROLIB_EXPORT
#endif
