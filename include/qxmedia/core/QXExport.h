#pragma once
/// @file
/// The mark that puts a class, function or variable in the shared library's
/// exported interface. The library is built with hidden visibility, so what
/// is not marked stays private to it.

#if defined(__GNUC__) || defined(__clang__)
/// Exports the declaration it precedes from libqxmedia.
#define QX_EXPORT __attribute__((visibility("default")))
#else
#define QX_EXPORT
#endif
