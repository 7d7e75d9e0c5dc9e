// Symbol visibility for the libraries of this project.
//
// Each shared library exports through its own macro, defined from the
// <target>_EXPORTS symbol that CMake sets while the library itself is built.
#ifndef KELQUOTE_EXPORT_H_
#define KELQUOTE_EXPORT_H_

#if defined(_WIN32)
#define KQ_DECL_EXPORT __declspec(dllexport)
#define KQ_DECL_IMPORT __declspec(dllimport)
#else
#define KQ_DECL_EXPORT __attribute__((visibility("default")))
#define KQ_DECL_IMPORT __attribute__((visibility("default")))
#endif

// kelquote itself: kelquote_core is compiled with KELQUOTE_BUILD, both for the
// shared library and for the tests that link the core statically.
#if defined(KELQUOTE_BUILD)
#define KELQUOTE_API KQ_DECL_EXPORT
#else
#define KELQUOTE_API KQ_DECL_IMPORT
#endif

#if defined(quoter_EXPORTS)
#define QUOTER_API KQ_DECL_EXPORT
#else
#define QUOTER_API KQ_DECL_IMPORT
#endif

#if defined(utils_EXPORTS)
#define UTILS_API KQ_DECL_EXPORT
#else
#define UTILS_API KQ_DECL_IMPORT
#endif

#if defined(DataApi_EXPORTS)
#define DATAAPI_API KQ_DECL_EXPORT
#else
#define DATAAPI_API KQ_DECL_IMPORT
#endif

#if defined(uaAuth_EXPORTS)
#define UAAUTH_API KQ_DECL_EXPORT
#else
#define UAAUTH_API KQ_DECL_IMPORT
#endif

#endif  // KELQUOTE_EXPORT_H_
