#include "core/settings.h"

#include "core/memory.h"
#include "core/options.h"
#include "fixture.h"

#include <net/if.h>

namespace {

using namespace scripted;

struct settings : core_fixture {};

using name_texts = std::vector<std::string>;

name_texts copied(const name_pointers &names, std::int32_t count) {
  name_texts texts;
  for (const interface_name &name : copy_interface_names(names, count)) {
    texts.emplace_back(name.data());
  }
  return texts;
}

// Before any fixture has set them.
const std::vector<std::int32_t> numbers_of_a_fresh_process = {
    ProxyMode,           ProxyDebugLevel, ProxyIsADaemon,       DownstreamInterfacesNum,
    IgnoreInterfacesNum, ForceNonQuerier, ImmediateLeave,       UpstreamInterfacesName != nullptr,
    LanMac[0],           MldPrefix[0],    InterfaceNameCounter, malloc_counter,
    free_counter,        malloced_size,
};

TEST_F(settings, defaults_are_6to6_in_the_foreground_and_zero_for_all_else) {
  EXPECT_EQ(numbers_of_a_fresh_process, (std::vector<std::int32_t>{2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(settings, modes_are_numbered_as_other_programs_know_them) {
  EXPECT_EQ(PROXY_MODE_6TO6, 2);
  EXPECT_EQ(PROXY_MODE_4TO6, 1);
  EXPECT_EQ(PROXY_MODE_4TO4, 0);
}

TEST_F(settings, name_is_cut_to_what_an_interface_name_can_hold) {
  EXPECT_STREQ(copy_interface_name("br0").data(), "br0");
  EXPECT_STREQ(copy_interface_name("fifteen-letters").data(), "fifteen-letters");
  EXPECT_STREQ(copy_interface_name("sixteen-letters!").data(), "sixteen-letters");
  EXPECT_STREQ(copy_interface_name(std::string(4000, 'x').c_str()).data(), std::string(IF_NAMESIZE - 1, 'x').c_str());
}

TEST_F(settings, no_name_and_the_empty_name_are_the_same) {
  EXPECT_EQ(copy_interface_name(nullptr), interface_name{});
  EXPECT_EQ(copy_interface_name(""), interface_name{});
}

TEST_F(settings, copies_keep_order_and_close_gaps) {
  EXPECT_EQ(copied({"a", "b", "c"}, 3), name_texts({"a", "b", "c", "", "", "", "", ""}));
  EXPECT_EQ(copied({nullptr, "a", "", "b"}, 4), name_texts({"a", "b", "", "", "", "", "", ""}));
}

TEST_F(settings, only_as_many_names_as_counted_are_copied) {
  EXPECT_EQ(copied({"a", "b", "c"}, 2), name_texts({"a", "b", "", "", "", "", "", ""}));
  EXPECT_EQ(copied({"a", "b"}, 0), name_texts(8, ""));
  EXPECT_EQ(copied({"a", "b"}, -1), name_texts(8, ""));
}

TEST_F(settings, count_beyond_the_table_copies_the_table) {
  const name_texts all{"a", "b", "c", "d", "e", "f", "g", "h"};
  EXPECT_EQ(copied({"a", "b", "c", "d", "e", "f", "g", "h"}, 10), all);
}

} // namespace
