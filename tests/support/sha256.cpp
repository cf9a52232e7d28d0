// FIPS 180-4 SHA-256, written for the tests' cross-checks (speed is not a
// concern: the corpus is a few megabytes).
#include "support/sha256.h"

#include <string.h>

namespace {

const uint32_t kRound[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

uint32_t rotr(uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

void compress(uint32_t state[8], const uint8_t block[64]) {
  uint32_t w[64] = {};
  for (int i = 0; i < 64; ++i) w[i / 4] = w[i / 4] << 8 | block[i];  // big-endian words
  for (int i = 16; i < 64; ++i) {
    uint32_t s0 = rotr(w[i - 15], 7) ^ rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
    uint32_t s1 = rotr(w[i - 2], 17) ^ rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
    w[i] = w[i - 16] + s0 + w[i - 7] + s1;
  }
  // v holds a..h; each round shifts them down one place.
  uint32_t v[8];
  memcpy(v, state, sizeof v);
  for (int i = 0; i < 64; ++i) {
    const uint32_t a = v[0], e = v[4];
    uint32_t t1 = v[7] + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + ((e & v[5]) ^ (~e & v[6])) +
                  kRound[i] + w[i];
    uint32_t t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + ((a & v[1]) ^ (a & v[2]) ^ (v[1] & v[2]));
    memmove(v + 1, v, 7 * sizeof v[0]);
    v[4] += t1;
    v[0] = t1 + t2;
  }
  for (int i = 0; i < 8; ++i) state[i] += v[i];
}

}  // namespace

std::string sha256Hex(const void* data, size_t size) {
  uint32_t state[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                       0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  size_t done = 0;
  for (; size - done >= 64; done += 64) compress(state, bytes + done);
  // The tail, a 1 bit, zeros, and the bit length in the last 8 bytes.
  uint8_t tail[128] = {};
  size_t rest = size - done;
  if (rest > 0) memcpy(tail, bytes + done, rest);
  tail[rest] = 0x80;
  size_t blocks = rest + 1 + 8 <= 64 ? 1 : 2;
  uint64_t bits = static_cast<uint64_t>(size) * 8;
  for (int i = 0; i < 8; ++i) tail[blocks * 64 - 1 - i] = static_cast<uint8_t>(bits >> (8 * i));
  for (size_t i = 0; i < blocks; ++i) compress(state, tail + 64 * i);
  std::string out;
  for (uint32_t word : state) {
    for (int shift = 28; shift >= 0; shift -= 4) out += "0123456789abcdef"[word >> shift & 15];
  }
  return out;
}
