/// Visibility of the library: what an application derives from or calls is marked, all else
/// is hidden.
#ifndef WENDREL_EXPORT_H
#define WENDREL_EXPORT_H

/// Marks a class or function as part of the library's interface.
#define WENDREL_EXPORT __attribute__((visibility("default")))

#endif
