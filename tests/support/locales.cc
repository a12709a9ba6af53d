#include "support/locales.h"

#include <gtest/gtest.h>
#include <locale.h>
#include <stdlib.h>

#include "support/child.h"

void useLocale(const std::string& folder, const std::string& language, const std::string& charset) {
  const std::string name = language + "." + charset;
  const ChildResult compiled =
      runProgram({"localedef", "--no-archive", "-i", language, "-f", charset, folder + "/" + name});
  ASSERT_EQ(compiled.exitCode(), 0) << "is the package locales installed? " << compiled;
  ASSERT_EQ(setenv("LOCPATH", folder.c_str(), 1), 0);
  ASSERT_NE(setlocale(LC_ALL, name.c_str()), nullptr) << name;
}
