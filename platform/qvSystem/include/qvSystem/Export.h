/// Visibility of the platform libraries: everything not marked is hidden.
#ifndef QVSYSTEM_EXPORT_H
#define QVSYSTEM_EXPORT_H

/// Marks a class or function as part of a platform library's interface.
#define QV_EXPORT __attribute__((visibility("default")))

#endif
