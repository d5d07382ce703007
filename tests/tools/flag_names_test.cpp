// The program prints a library message about an argument with the argument's flag: the library
// writes "id 3: ...", the user typed --id 3.
#include <gtest/gtest.h>

#include <string>

#include "tools/msmface/commands/flag_names.h"

namespace {

using msmcli::withFlagNames;

TEST(FlagNames, ALibraryArgumentBecomesTheProgramsFlag) {
    EXPECT_EQ(withFlagNames("id 3: the ID number is taken by \"alice\""),
              "--id 3: the ID number is taken by \"alice\"");
    EXPECT_EQ(withFlagNames("name \"a b: c\": expected 1 to 64 letters"),
              "--name \"a b: c\": expected 1 to 64 letters");
    EXPECT_EQ(withFlagNames("name alice: the key name is taken by ID 1"),
              "--name alice: the key name is taken by ID 1");
    EXPECT_EQ(withFlagNames("dimension 0: expected 1 to 256"), "--dimension 0: expected 1 to 256");
    EXPECT_EQ(withFlagNames("threshold 1200: expected 0 to 1000"),
              "--threshold 1200: expected 0 to 1000");
}

TEST(FlagNames, EverythingElseIsLeftAsItIs) {
    for (const std::string& message :
         {std::string("--id 3: already a flag"), std::string("identity x: not a parameter"),
          std::string("faces/persons.txt: line 2: expected a name"),
          std::string("threshold at 1 %: not an argument"), std::string("name"),
          std::string("name \"unclosed: quote"), std::string("id : no value"),
          std::string("method 3: a parameter the program names otherwise")})
        EXPECT_EQ(withFlagNames(message), message);
}

}  // namespace
