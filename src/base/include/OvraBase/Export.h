/*
 * The mark of a library's binary interface. The SDK's shared libraries are
 * built with hidden visibility, so nothing leaves a library unless its
 * declaration carries OVRA_EXPORT. Usable from C.
 */
#ifndef OVRA_BASE_EXPORT_H
#define OVRA_BASE_EXPORT_H

#if defined(__GNUC__)
#define OVRA_EXPORT __attribute__((visibility("default")))
#else
#define OVRA_EXPORT
#endif

#endif /* OVRA_BASE_EXPORT_H */
