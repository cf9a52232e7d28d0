// SHA-256 of a byte buffer, as lowercase hex: enough to compare stream
// contents with digests recorded by other readers.
#ifndef MOXOLEFIO_TESTS_SUPPORT_SHA256_H_
#define MOXOLEFIO_TESTS_SUPPORT_SHA256_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

std::string sha256Hex(const void* data, size_t size);

#endif  // MOXOLEFIO_TESTS_SUPPORT_SHA256_H_
