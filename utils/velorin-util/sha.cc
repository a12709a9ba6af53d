// SHA-1 as RFC 3174 has it. See velorin/sha.
#include "velorin/sha"

#include <stddef.h>
#include <string.h>

#include <algorithm>

#include "internal/forget.h"
#include "internal/settled.h"
#include "internal/target.h"
#include "sha_blocks.h"

namespace {

using velorin::internal::forget;
using velorin::internal::settled;

constexpr size_t kBlockBytes = sizeof(SHA1Context::Message_Block);
constexpr size_t kLengthBytes = 8;  // at the end of the last block

// What stands behind the message, as much of it as the last one or two blocks have room for.
constexpr uint8_t kPadding[kBlockBytes + kLengthBytes] = {0x80};
using ZerosAndLength = uint64_t __attribute__((vector_size(16)));

// A context that was never reset shall not lead outside the block.
size_t waitingBytes(const SHA1Context& context) {
  return static_cast<uint16_t>(context.Message_Block_Index) % kBlockBytes;
}

// Word by word: the processor makes a wide load wait that follows narrow stores of the same bytes.
uint64_t lengthInBits(const SHA1Context& context) {
  return uint64_t{settled(context.Length_High)} << 32 | settled(context.Length_Low);
}

// Most significant byte first.
void store(uint8_t* bytes, uint32_t word) {
  static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "words lie in memory reversed");
  word = __builtin_bswap32(word);
  memcpy(bytes, &word, sizeof word);
}

void SHA1ProcessMessageBlock(SHA1Context* context) {
  velorin::internal::sha1Blocks(context->Intermediate_Hash, context->Message_Block, 1);
}

void SHA1PadMessage(SHA1Context* context) {
  const size_t waiting = waitingBytes(*context);
  const size_t blocks = waiting < kBlockBytes - kLengthBytes ? 1 : 2;
  // Copies of fixed sizes, and the length in one store with the zeros before it where these are no
  // part of the message: blocks are loaded in wide pieces, which wait long behind narrow stores.
  uint8_t last[kBlockBytes - 1 + sizeof kPadding];
  memcpy(last, context->Message_Block, kBlockBytes);
  memcpy(last + waiting, kPadding, sizeof kPadding);
  uint8_t* const end = last + blocks * kBlockBytes;
  const uint64_t length = __builtin_bswap64(lengthInBits(*context));
  const ZerosAndLength tail = {0, length};
  if (last + waiting < end - sizeof tail)
    memcpy(end - sizeof tail, &tail, sizeof tail);
  else
    memcpy(end - sizeof length, &length, sizeof length);
  velorin::internal::sha1Blocks(context->Intermediate_Hash, last, blocks);
  context->Message_Block_Index = 0;
  forget(&last);
}

// Counts `*length` more bytes. A message of 2^64 bits or more ends where its count is 0 again:
// `*length` becomes the bytes up to there.
void countBytes(SHA1Context* context, size_t* length) {
  const uint64_t before = lengthInBits(*context);
  uint64_t after = before + uint64_t{*length} * 8;
  if (after < before) {
    *length -= static_cast<size_t>(after / 8);
    after = 0;
    // Kept: the RFC's code sets 1 here, not shaInputTooLong, and the call that does so succeeds.
    context->Corrupted = 1;
  }
  context->Length_Low = static_cast<uint32_t>(after);
  context->Length_High = static_cast<uint32_t>(after >> 32);
}

}  // namespace

int SHA1Reset(SHA1Context* context) {
  if (context == nullptr) return shaNull;
  uint32_t* const hash = context->Intermediate_Hash;
  hash[0] = 0x67452301;
  hash[1] = 0xEFCDAB89;
  hash[2] = 0x98BADCFE;
  hash[3] = 0x10325476;
  hash[4] = 0xC3D2E1F0;
  context->Length_Low = 0;
  context->Length_High = 0;
  context->Message_Block_Index = 0;
  context->Computed = 0;
  context->Corrupted = shaSuccess;
  return shaSuccess;
}

int SHA1Input(SHA1Context* context, const uint8_t* message_array, unsigned int length) {
  if (length == 0) return shaSuccess;
  if (context == nullptr || message_array == nullptr) return shaNull;
  if (context->Computed) context->Corrupted = shaStateError;
  if (context->Corrupted) return context->Corrupted;

  const size_t waiting = waitingBytes(*context);
  size_t left = length;
  countBytes(context, &left);
  context->Message_Block_Index = static_cast<int16_t>((waiting + left) % kBlockBytes);
  if (waiting > 0) {
    const size_t taken = std::min(left, kBlockBytes - waiting);
    memcpy(context->Message_Block + waiting, message_array, taken);
    if (waiting + taken < kBlockBytes) return shaSuccess;
    SHA1ProcessMessageBlock(context);
    message_array += taken;
    left -= taken;
  }
  const size_t blocks = left / kBlockBytes;
  if (blocks > 0) velorin::internal::sha1Blocks(context->Intermediate_Hash, message_array, blocks);
  // Of a size that the compiler does not know to be small: it would copy in narrow pieces.
  memcpy(context->Message_Block, message_array + blocks * kBlockBytes, settled(left % kBlockBytes));
  return shaSuccess;
}

int SHA1Result(SHA1Context* context, uint8_t* Message_Digest) {
  if (context == nullptr || Message_Digest == nullptr) return shaNull;
  if (context->Corrupted) return context->Corrupted;
  if (!context->Computed) {
    SHA1PadMessage(context);
    forget(&context->Message_Block);
    context->Length_Low = 0;
    context->Length_High = 0;
    context->Computed = 1;
  }
  for (const uint32_t word : context->Intermediate_Hash) {
    store(Message_Digest, word);
    Message_Digest += sizeof word;
  }
  return shaSuccess;
}
