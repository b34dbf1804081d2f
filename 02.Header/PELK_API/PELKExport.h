// What libPELKAgent.so exports: everything else in it, its C++ runtime included, stays hidden.
#ifndef PELK_EXPORT_H
#define PELK_EXPORT_H

#define PELK_EXPORT __attribute__((visibility("default")))

#endif  // PELK_EXPORT_H
