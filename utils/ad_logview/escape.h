// Text that does nothing to a terminal.
#ifndef VELORIN_AD_LOGVIEW_escape_
#define VELORIN_AD_LOGVIEW_escape_

#include <string>
#include <string_view>

// What the reader of the text takes its bytes for.
enum class Charset { kUtf8, kAscii };

// Adds `text`, each byte as "\xHH" of
// - control characters, those from 0x80 to 0x9f in UTF-8 too, but not of tabs;
// - what is no UTF-8, and for kAscii what is not ASCII;
// - characters that change the direction in which a line is read, or end it for some readers.
void appendEscaped(std::string* to, std::string_view text, Charset charset);

std::string escaped(std::string_view text);

#endif  // VELORIN_AD_LOGVIEW_escape_
