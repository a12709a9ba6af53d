// One datagram as a JSON object. See json_line.h.
#include "json_line.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string_view>

#include "log_statement.h"

namespace {

using std::string_view;

constexpr uint32_t kSecond = 1000000;  // microseconds
constexpr char kHex[] = "0123456789abcdef";
constexpr string_view kReplacement = "\xef\xbf\xbd";  // U+FFFD

char* put(char* at, string_view text) {
  memcpy(at, text.data(), text.size());
  return at + text.size();
}

bool within(unsigned char byte, unsigned char first, unsigned char last) {
  return byte >= first && byte <= last;
}

// Returns: the length of the well-formed UTF-8 sequence that `text` begins with; 0: there is none.
size_t sequenceLength(string_view text) {
  const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return 1;
  const size_t len = within(lead, 0xc2, 0xdf)   ? 2
                     : within(lead, 0xe0, 0xef) ? 3
                     : within(lead, 0xf0, 0xf4) ? 4
                                                : 0;
  if (len == 0 || text.size() < len) return 0;
  // The second byte decides over overlong forms, surrogates and numbers above U+10FFFF.
  const unsigned char first = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
  const unsigned char last = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
  if (!within(byte(1), first, last)) return 0;
  for (size_t i = 2; i < len; ++i)
    if (!within(byte(i), 0x80, 0xbf)) return 0;
  return len;
}

char* putUnicodeEscape(char* at, unsigned char code) {
  at = put(at, "\\u00");
  *at++ = kHex[code >> 4];
  *at++ = kHex[code & 15];
  return at;
}

// Puts the `len` bytes of one character. Terminals obey the control characters from U+007F to
// U+009F too; JSON does not ask to escape them.
char* putCharacter(char* at, const char* text, size_t len) {
  const unsigned char byte = static_cast<unsigned char>(text[0]);
  if (byte == 0xc2 && static_cast<unsigned char>(text[1]) < 0xa0)
    return putUnicodeEscape(at, static_cast<unsigned char>(text[1]));
  if (len > 1) return put(at, {text, len});
  if (byte == '\n') return put(at, "\\n");
  if (byte == '\r') return put(at, "\\r");
  if (byte == '\t') return put(at, "\\t");
  if (byte < 0x20 || byte == 0x7f) return putUnicodeEscape(at, byte);
  if (byte == '"' || byte == '\\') *at++ = '\\';
  *at++ = text[0];
  return at;
}

// Puts a string. Clears `*exact` when bytes that are not UTF-8 had to be replaced.
char* putString(char* at, string_view text, bool* exact) {
  *at++ = '"';
  while (!text.empty()) {
    const size_t len = sequenceLength(text);
    at = len == 0 ? put(at, kReplacement) : putCharacter(at, text.data(), len);
    if (len == 0) *exact = false;
    text.remove_prefix(len == 0 ? 1 : len);
  }
  *at++ = '"';
  return at;
}

char* putStringOrNull(char* at, string_view text, bool* exact) {
  return text.empty() ? put(at, "null") : putString(at, text, exact);
}

char* putNumberOrNull(char* at, string_view digits) {
  return put(at, digits.empty() ? "null" : digits);
}

char* putHex(char* at, string_view bytes) {
  for (const char c : bytes) {
    const unsigned char byte = static_cast<unsigned char>(c);
    *at++ = kHex[byte >> 4];
    *at++ = kHex[byte & 15];
  }
  return at;
}

// A time as RFC 3339 has it. Microseconds that are none cannot stand in it.
char* putTime(char* at, timeval32 time, SecondText* second) {
  second->set(time.sec);
  at += sprintf(at, "\"%sT%s", second->date(), second->clock());
  if (time.usec < kSecond) at += sprintf(at, ".%06" PRIu32, time.usec);
  return at + sprintf(at, "%s\"", second->zone());
}

}  // namespace

char* putJsonLine(char* at, const LogDatagram& datagram, bool special, SecondText* received,
                  SecondText* sent) {
  const timeval32 time = {datagram.sec, datagram.usec};
  const LogStatement parts = datagram.malformed
                                 ? LogStatement{{}, {}, {}, {}, {}, {datagram.text, datagram.len}}
                                 : parseStatement({datagram.text, datagram.shownLen()});
  bool exact = true;
  at = putTime(put(at, "{\"time\":"), datagram.malformed ? time : now(), received);
  at = put(at, ",\"sent\":");
  at = datagram.malformed ? put(at, "null") : putTime(at, time, sent);
  at = put(at, special ? ",\"special\":true" : ",\"special\":false");
  at = put(at, datagram.malformed ? ",\"malformed\":true" : ",\"malformed\":false");
  at = putStringOrNull(put(at, ",\"process\":"), parts.process, &exact);
  at = putNumberOrNull(put(at, ",\"pid\":"), parts.pid);
  at = putStringOrNull(put(at, ",\"tag\":"), parts.tag, &exact);
  at = putStringOrNull(put(at, ",\"file\":"), parts.file, &exact);
  at = putNumberOrNull(put(at, ",\"line\":"), parts.line);
  at = putString(put(at, ",\"text\":"), parts.text, &exact);
  if (!exact) at = put(putHex(put(at, ",\"raw\":\""), {datagram.text, datagram.len}), "\"");
  if (!datagram.malformed && datagram.usec >= kSecond)
    at += sprintf(at, ",\"sent_usec\":%" PRIu32, datagram.usec);
  return put(at, "}\n");
}

char* putJsonLoss(char* at, uint64_t count, SecondText* received) {
  at = putTime(put(at, "{\"time\":"), now(), received);
  return at + sprintf(at,
                      ",\"sent\":null,\"special\":false,\"malformed\":false,\"process\":"
                      "\"ad_logd\",\"pid\":%d,\"tag\":null,\"file\":null,\"line\":null,"
                      "\"text\":\"%" PRIu64 " lines lost here\",\"lost\":%" PRIu64 "}\n",
                      static_cast<int>(getpid()), count, count);
}
