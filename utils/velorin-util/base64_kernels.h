// The inner loops of Base64, one set for each instruction set, and the functions of velorin/base64
// with a set of the caller's choice: this is how the tests run all of them on one machine.
#ifndef VELORIN_base64_kernels_
#define VELORIN_base64_kernels_

#include <stddef.h>
#include <stdint.h>

namespace velorin::base64 {

inline constexpr char base64_code[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
inline constexpr char kPad = '=';

// What every byte stands for: its place in the alphabet, 0 for the padding, else -1.
struct Values {
  int of[256] = {};

  // LCOV_EXCL_START: only the compiler runs this
  constexpr Values() {
    for (int& value : of) value = -1;
    for (int i = 0; i < 64; ++i) of[static_cast<uint8_t>(base64_code[i])] = i;
    of[static_cast<uint8_t>(kPad)] = 0;
  }
  // LCOV_EXCL_STOP
};
inline constexpr Values kValues;
inline constexpr const int (&base64_value)[256] = kValues.of;

// How far a decoding loop came.
struct Progress {
  size_t read;     // characters
  size_t written;  // bytes
};

// The loops of one instruction set. None reads outside of its input or writes anything but its
// result.
struct Kernel {
  const char* name;

  // Whether this processor, and the system that runs on it, have the instructions.
  bool (*runs)();

  // Encodes `size` bytes as a padded text that ends with a zero.
  void (*encode)(const uint8_t* bytes, size_t size, char* text);

  // Decodes groups of four characters and skips foreign bytes between them. Stops at the end,
  // before the padding, or at the first character of a group that is left to the caller: one that
  // the end or the padding cuts short, and perhaps one that foreign bytes split. `bytes` may be
  // `text`.
  Progress (*decode)(const uint8_t* text, size_t size, uint8_t* bytes);

  // Returns: how many of the `size` characters stand before the first outside the alphabet.
  size_t (*span)(const uint8_t* text, size_t size);
};

// The portable loops; the others leave their ends to them.
void encodePortable(const uint8_t* bytes, size_t size, char* text);
Progress decodePortable(const uint8_t* text, size_t size, uint8_t* bytes);
size_t spanPortable(const uint8_t* text, size_t size);

inline constexpr size_t kKernels = 4;
extern const Kernel kPortable;
extern const Kernel kSsse3;
extern const Kernel kAvx2;
extern const Kernel kAvx512;

// All of them, the fastest first; the last one runs everywhere.
extern const Kernel* const kFastestFirst[kKernels];

// velorin/base64 with the loops of `kernel`.
char* encode(const Kernel& kernel, const char* bytes, char* text, int size);
char* decode(const Kernel& kernel, const char* text, char* bytes, int* size);
int isBase64(const Kernel& kernel, const char* text);

}  // namespace velorin::base64

#endif  // VELORIN_base64_kernels_
