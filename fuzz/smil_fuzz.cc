// SMIL playlists: the same links, lines, texts and results as a slow scanner's; without a change of
// links the rewritten text is the text.
#include "playlist.h"

namespace {

const playlist::Language kSmil = {{{"video ", "video"},
                                   {"audio ", "audio"},
                                   {"textstream ", "textstream"},
                                   {"animation ", "animation"},
                                   {"ref ", "ref"},
                                   {"image ", playlist::kNameStays},
                                   {"text ", "text"},
                                   {"img ", "img"},
                                   {"a ", "a"},
                                   {"anchor ", "anchor"},
                                   {"area ", "area"}},
                                  {"src", "href"},
                                  /*behind_element=*/0,
                                  /*behind_attribute=*/3,
                                  "SMIL syntax Error "};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static playlist::Noting object;
  playlist::compare(kSmil, object, data, size,
                    [](xmlRewrite& to, char* path) { return to.doParseSMIL(path); });
  return 0;
}
