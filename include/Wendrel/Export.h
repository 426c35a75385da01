/// Visibility of the library: classes and functions for applications are marked, all others are
/// hidden.
#ifndef WENDREL_EXPORT_H
#define WENDREL_EXPORT_H

/// Marks a class or function as part of the library's interface.
#define WENDREL_EXPORT __attribute__((visibility("default")))

#endif
