/* Export and linkage macros shared by every public header of libCorvel_Driver. */
#ifndef CORVEL_EXPORT_H
#define CORVEL_EXPORT_H

/* Marks a function as part of the library's exported C ABI. Everything else is hidden. */
#if defined(CORVEL_BUILDING_LIBRARY)
#define CORVEL_API __attribute__((visibility("default")))
#else
#define CORVEL_API
#endif

#ifdef __cplusplus
#define CORVEL_EXTERN_C_BEGIN extern "C" {
#define CORVEL_EXTERN_C_END }
#else
#define CORVEL_EXTERN_C_BEGIN
#define CORVEL_EXTERN_C_END
#endif

#endif /* CORVEL_EXPORT_H */
