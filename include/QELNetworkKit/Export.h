#ifndef QELNETWORKKIT_EXPORT_H
#define QELNETWORKKIT_EXPORT_H

/** Marks what the shared library exports; everything else stays hidden. */
#define QELNK_EXPORT __attribute__((visibility("default")))
/** Marks what lies within an exported class and is not for hosts all the same (C++ only). */
#define QELNK_HIDDEN [[gnu::visibility("hidden")]]

#ifdef __cplusplus
/** Around declarations that C sees too. */
#define QELNK_EXTERN_C_BEGIN extern "C" {
/** Ends QELNK_EXTERN_C_BEGIN. */
#define QELNK_EXTERN_C_END }
#else
#define QELNK_EXTERN_C_BEGIN
#define QELNK_EXTERN_C_END
#endif

#endif
