// The appliance's role. See velorin/box.
#include "velorin/box"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "velorin/ad_debug"

namespace {

constexpr char kPath[] = "/etc/PERSONALITY";

constexpr size_t kCut = 256;  // what counts of a word, terminating zero included
struct Word {
  char text[kCut + 1];  // the room that reading may take
};

struct Role {
  const char* token;
  box_personality_t number;
};
constexpr Role kRoles[] = {
    {"TARN", TARN_BOX}, {"KU", KU_BOX},     {"PLIV", PLIV_BOX}, {"DRUNE", DRUNE_BOX},
    {"MIVE", MIVE_BOX}, {"OSKO", OSKO_BOX}, {"VESK", VESK_BOX},
};

Word first_word(FILE* file) {
  Word word;
  if (fscanf(file, "%256s", word.text) != 1) word.text[0] = '\0';
  word.text[kCut - 1] = '\0';
  return word;
}

char upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// In any case, whatever the locale takes for the same letter.
bool same_word(const char* word, const char* token) {
  for (; *token != '\0'; ++word, ++token)
    if (upper(*word) != *token) return false;
  return *word == '\0';
}

}  // namespace

box_personality_t get_box_personality(void) {
  FILE* const file = fopen(kPath, "re");
  if (file == nullptr) {
    const int err = errno;
    AD_ERRO("open %s: %s", kPath, strerror(err));
    // Kept: every failure gives this role, so that a machine without the file works as one.
    return KU_BOX;
  }
  const Word word = first_word(file);
  (void)fclose(file);

  for (const Role& role : kRoles)
    if (same_word(word.text, role.token)) return role.number;
  AD_ERRO("Invalid personality in %s: \"%s\"", kPath, word.text);
  return KU_BOX;
}
