// The configuration decryptor.
#ifndef KELQUOTE_UAAUTH_UAAUTH_H_
#define KELQUOTE_UAAUTH_UAAUTH_H_

#include <cstdint>

#include "kelquote/export.h"

// Error results of SymDecryptFile.
constexpr int32_t kSymOpenFailed = -391011;
constexpr int32_t kSymReadFailed = -391010;
constexpr int32_t kSymNotExist = -391009;

// Decrypts the whole file at path. On success returns 0 and sets *buffer to
// the NUL-terminated plain text and *length to its length in bytes. The buffer
// belongs to the library and stays valid until the calling thread's next call.
extern "C" UAAUTH_API int32_t SymDecryptFile(const char* path, char** buffer, int32_t* length);

#endif  // KELQUOTE_UAAUTH_UAAUTH_H_
