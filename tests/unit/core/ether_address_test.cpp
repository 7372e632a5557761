#include "platform/nvram.h"

#include <array>
#include <gtest/gtest.h>

namespace {

using mac = std::array<unsigned char, 6>;

constexpr mac untouched{1, 2, 3, 4, 5, 6};

TEST(ether_address, six_pairs_become_six_bytes) {
  mac bytes = untouched;
  EXPECT_EQ(ether_atoe("00:1a:2b:3c:4d:ff", bytes.data()), 1);
  EXPECT_EQ(bytes, (mac{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0xff}));
}

TEST(ether_address, capital_digits_count) {
  mac bytes = untouched;
  EXPECT_EQ(ether_atoe("AB:cD:Ef:09:90:00", bytes.data()), 1);
  EXPECT_EQ(bytes, (mac{0xab, 0xcd, 0xef, 0x09, 0x90, 0x00}));
}

TEST(ether_address, any_other_text_is_refused_and_leaves_the_bytes_alone) {
  const char *texts[] = {
      "",                      //
      "00",                    //
      "00:11:22:33:44",        // a pair short
      "00:11:22:33:44:5",      // a digit short
      "00:11:22:33:44:55:",    // a colon more
      "00:11:22:33:44:55:66",  // a pair more
      "00-11-22-33-44-55",     // other separators
      "00:11:22:33:44_55",     //
      "00:11:22:33:44:5g",     // beyond the last digit
      "00:11:22:33:44:5G",     //
      "00:11:22:33:44:/5",     // before the first digit
      "00:11:22:33:44::5",     // behind the last digit
      "00:11:22:33:44:@5",     // before the first letter
      "00:11:22:33:44:`5",     //
      " 00:11:22:33:44:5",     // leading blank
      "00:11:22:33:44:5 ",     // trailing blank
      "g0:11:22:33:44:55",     // wrong in the first pair
      "0x:11:22:33:44:55",     //
      "001122334455",          // no separators
      "00:11:22:33:44:55\r\n", // line end of another system
  };
  for (const char *text : texts) {
    mac bytes = untouched;
    EXPECT_EQ(ether_atoe(text, bytes.data()), 0) << text;
    EXPECT_EQ(bytes, untouched) << text;
  }
}

} // namespace
