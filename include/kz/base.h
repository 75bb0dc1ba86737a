/* kzlib: common definitions shared by every public header. */
#ifndef KZ_BASE_H
#define KZ_BASE_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#if defined(KZ_STATIC)
#define KZ_API
#elif defined(_WIN32)
#if defined(KZ_BUILDING_LIBRARY)
#define KZ_API __declspec(dllexport)
#else
#define KZ_API __declspec(dllimport)
#endif
#else
#define KZ_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#define KZ_BEGIN_DECLS extern "C" {
#define KZ_END_DECLS   }
#else
#define KZ_BEGIN_DECLS
#define KZ_END_DECLS
#endif

/* Formatting functions carry no printf attribute: they take the "%I64u"
 * forms, which compilers would misread as the C library's 'I' flag. */
#if defined(__GNUC__) || defined(__clang__)
#define KZ_NORETURN __attribute__((noreturn))
#else
#define KZ_NORETURN
#endif

/* Module name recorded with errors and messages raised through the calling
 * macros. A program may define KZ_MODULE_NAME before including kzlib headers. */
#ifndef KZ_MODULE_NAME
#define KZ_MODULE_NAME ((const char *)0)
#endif

/* Function name recorded with errors and messages. */
#ifndef KZ_FUNCTION_NAME
#define KZ_FUNCTION_NAME __func__
#endif

#endif /* KZ_BASE_H */
