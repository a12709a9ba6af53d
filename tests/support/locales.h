// Locales that the tests compile for themselves, so that no machine has to have them.
#ifndef VELORIN_TESTS_locales_
#define VELORIN_TESTS_locales_

#include <string>

// Sets all of this process's locale, compiled from the system's sources into `folder`: language as
// in de_DE, character set as in ISO-8859-1. Fails the test when that is not possible.
void useLocale(const std::string& folder, const std::string& language, const std::string& charset);

#endif  // VELORIN_TESTS_locales_
