#include "mld/mld_query.h"

#include "core/memory.h"
#include "fixture.h"
#include "mld/mld_group.h"

#include <algorithm>
#include <cerrno>

namespace {

using namespace scripted;

constexpr char send_query[] = "mld_router_v2_send_query";
constexpr char more_src[] = "mld_router_v2_send_query_more_src";

const std::string opened = "socket(AF_PACKET, SOCK_RAW, 58)";
const std::string sending_interface_set = "setsockopt(br0, IPV6_MULTICAST_IF) = 3";
const std::string closed = "close(packet)";

std::string sent(int bytes, const std::string &mac) {
  return "sendto(packet, " + std::to_string(bytes) + " bytes) protocol=58 ifindex=3 hatype=1 pkttype=2 mac=" + mac;
}

struct mld_query_sending : mld_fixture {
  mld_query_sending() {
    for (int i = 0; i < 4; ++i) {
      Kernel.names[FIRST_NEW_SOCKET + i] = "packet";
    }
  }

  void when_queried(const char *group) {
    when([&] { mld_router_v2_send_query(br0, 100, address(group)); });
  }

  // A group whose queries are pending; `timers` are those of its source slots.
  mld_group *given_asked(const std::string &group, int queries, const lines &sources = {},
                         const std::vector<int> &timers = {}) {
    mld_group *asked = given_group(br0, group, sources);
    for (std::size_t i = 0; i < timers.size(); ++i) {
      asked->sources[i].source_timer = timers[i];
    }
    given_checking(asked, queries, 0);
    return asked;
  }

  mld_group *when_sent(mld_group *group) {
    mld_group *next = nullptr;
    when([&] { next = mld_router_v2_send_query_more_src(br0, group); });
    return next;
  }

  // Whether it was sent or not, the query is used up and the timer for the next step is set.
  void then_query_is_used_up(const mld_group *group, int queries_left, int retransmit_timer) {
    EXPECT_EQ(length(group->queries), queries_left);
    EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE - queries_left);
    EXPECT_EQ(group->retransmit_timer, retransmit_timer);
    EXPECT_EQ(group->state, MLD_GROUP_CHECKING_MEMBERSHIP);
  }
};

TEST_F(mld_query_sending, general_query_goes_to_all_nodes) {
  const int used_before = malloced_size;
  when_queried("::");
  then({
      opened,
      sending_interface_set,
      sent(90, "33:33:00:00:00:01"),
      logged_debug(send_query, "[QUERY] group: 0000:0000:0000:0000:0000:0000:0000:0000"),
      closed,
  });
  EXPECT_EQ(malloced_size - used_before, 90);
  EXPECT_EQ(free_counter, 1);
}

TEST_F(mld_query_sending, group_query_goes_to_the_hardware_address_of_the_group) {
  when_queried("ff0e::1:2:3");
  then({
      opened,
      sending_interface_set,
      sent(90, "33:33:00:02:00:03"),
      logged_debug(send_query, "[QUERY] group: ff0e:0000:0000:0000:0000:0001:0002:0003"),
      closed,
  });
}

TEST_F(mld_query_sending, nothing_is_sent_where_another_router_is_querier) {
  br0->is_querier = 0;
  when_queried("::");
  then({logged_debug(send_query, "No a querier on br0")});
}

TEST_F(mld_query_sending, without_a_packet_socket_nothing_is_sent) {
  given_failure(opened, EMFILE);
  when_queried("::");
  then({opened, logged_error(send_query, "Can't create socket to send query!")});
}

TEST_F(mld_query_sending, refused_sending_interface_does_not_matter) {
  given_failure(sending_interface_set, EADDRNOTAVAIL);
  when_queried("::");
  then_requests({opened, sending_interface_set, sent(90, "33:33:00:00:00:01"), closed});
}

TEST_F(mld_query_sending, without_memory_the_packet_socket_stays_open) {
  given_failure("malloc(90)", ENOMEM);
  when_queried("::");
  then({opened, sending_interface_set, logged_error(send_query, "Unable to allocate memory for MLD query.")});
}

TEST_F(mld_query_sending, refused_frame_is_logged_and_everything_closed) {
  given_failure("sendto(", ENETDOWN);
  when_queried("::");
  then({
      opened,
      sending_interface_set,
      sent(90, "33:33:00:00:00:01"),
      logged_error(send_query, "[QUERY] Unable to send query."),
      logged_debug(send_query, "[QUERY] group: " + log_text("::")),
      closed,
  });
  EXPECT_EQ(free_counter, 1);
}

TEST_F(mld_query_sending, pending_query_lists_the_sources_that_ran_out) {
  mld_group *asked =
      given_asked("ff0e::1", 1, {"2001:db8::1", "2001:db8::2", "2001:db8::3", "2001:db8::4"}, {0, 1, -3, 360});
  const int used_before = malloced_size;
  when_sent(asked);
  then({
      opened,
      sending_interface_set,
      sent(122, "33:33:00:00:00:01"),
      logged_debug(more_src, "[QUERY] group:  " + log_text("ff0e::1")),
      logged_debug(more_src, "[QUERY] source: " + log_text("2001:db8::1")),
      logged_debug(more_src, "[QUERY] source: " + log_text("2001:db8::3")),
      closed,
  });
  then_query_is_used_up(asked, 0, 10);
  EXPECT_EQ(malloced_size - used_before, 90 + 4 * 16) << "room for all of the group's sources";
  const std::vector<std::uint8_t> &frame = Kernel.frames.at(0);
  EXPECT_EQ(frame[89], 2);
  EXPECT_EQ(frame[90 + 15], 1);
  EXPECT_EQ(frame[106 + 15], 3);
}

TEST_F(mld_query_sending, next_query_follows_after_a_second) {
  mld_group *asked = given_asked("ff0e::1", 2, {"2001:db8::1"}, {0});
  when_sent(asked);
  then_query_is_used_up(asked, 1, 1);
  when_sent(asked);
  then_query_is_used_up(asked, 0, 10);
  then_anything();
}

TEST_F(mld_query_sending, group_whose_sources_all_live_needs_no_query) {
  mld_group *asked = given_asked("ff0e::1", 1, {"2001:db8::1", "::"}, {1, 360});
  when_sent(asked);
  then({opened, sending_interface_set, logged_debug(more_src, "No source address need to query"), closed});
  then_query_is_used_up(asked, 0, 10);
  EXPECT_EQ(malloc_counter - free_counter, 359) << "only the records of the start";
}

TEST_F(mld_query_sending, group_without_sources_sends_no_query_either) {
  mld_group *asked = given_asked("ff0e::1", 1);
  when_sent(asked);
  then({opened, sending_interface_set, logged_debug(more_src, "No source address need to query"), closed});
  then_query_is_used_up(asked, 0, 10);
}

const lines sent_as_group_query{
    opened,
    sending_interface_set,
    logged_debug(more_src, "Specific Multicast with Any-Source query, call mld_router_v2_send_query()"),
    opened,
    sending_interface_set,
    sent(90, "33:33:00:00:00:01"),
    logged_debug(send_query, "[QUERY] group: " + log_text("ff0e::1")),
    closed,
    closed,
};

TEST_F(mld_query_sending, expired_any_source_slot_asks_for_the_whole_group) {
  mld_group *asked = given_asked("ff0e::1", 1, {"::"}, {0});
  when_sent(asked);
  then(sent_as_group_query);
  then_query_is_used_up(asked, 0, 10);
}

TEST_F(mld_query_sending, sources_listed_before_an_expired_any_source_slot_are_not_sent) {
  mld_group *asked = given_asked("ff0e::1", 1, {"2001:db8::1", "::", "2001:db8::2"}, {0, 0, 0});
  when_sent(asked);
  then(sent_as_group_query);
  then_query_is_used_up(asked, 0, 10);
  EXPECT_EQ(malloc_counter - free_counter, 359);
}

TEST_F(mld_query_sending, pending_query_is_used_up_whatever_fails) {
  struct row {
    const char *failing;
    lines transcript;
  };
  const row rows[] = {
      {"socket(AF_PACKET", {opened, logged_error(more_src, "Can't create socket to send query!")}},
      {"malloc(106)",
       {opened, sending_interface_set, logged_error(more_src, "Unable to allocate memory for MLD query.")}},
      {"sendto(",
       {opened, sending_interface_set, sent(106, "33:33:00:00:00:01"),
        logged_error(more_src, "[QUERY] Unable to send query."),
        logged_debug(more_src, "[QUERY] group:  " + log_text("ff0e::1")),
        logged_debug(more_src, "[QUERY] source: " + log_text("2001:db8::1")), closed}},
  };
  mld_group *asked = given_asked("ff0e::1", 0, {"2001:db8::1"}, {0});
  for (const row &one : rows) {
    SCOPED_TRACE(one.failing);
    given_checking(asked, 2, 0);
    given_failure(one.failing, EPERM);
    when_sent(asked);
    then(one.transcript);
    then_query_is_used_up(asked, 1, 1);
    when([&] { mld_return_queries(asked); });
  }
}

TEST_F(mld_query_sending, pending_query_is_used_up_where_another_router_is_querier) {
  br0->is_querier = 0;
  mld_group *asked = given_asked("ff0e::1", 2, {"2001:db8::1"}, {0});
  when_sent(asked);
  then({logged_debug(more_src, "No a querier on br0")});
  then_query_is_used_up(asked, 1, 1);
}

TEST_F(mld_query_sending, group_that_follows_is_returned) {
  mld_group *last = given_asked("ff0e::2", 1);
  mld_group *first = given_asked("ff0e::1", 1);
  EXPECT_EQ(when_sent(first), last);
  EXPECT_EQ(when_sent(last), nullptr);
  then_anything();
}

TEST_F(mld_query_sending, returned_query_is_the_next_to_be_taken) {
  mld_group *asked = given_asked("ff0e::1", 1);
  const list_node *query = list_get_head(&asked->queries);
  when_sent(asked);
  EXPECT_EQ(list_get_head(&MldRouter.free_queries), query);
  then_anything();
}

// An any-source slot of at least 11 seconds was reported after the last query: listeners of all sources are there.
TEST_F(mld_query_sending, lasting_any_source_slot_keeps_expired_sources_from_being_blocked) {
  struct row {
    int any_source_timer;
    bool is_blocked;
  };
  for (const row &one : {row{10, true}, row{11, false}, row{360, false}}) {
    SCOPED_TRACE(one.any_source_timer);
    mld_group *asked = given_asked("ff0e::1", 0, {"2001:db8::1", "::"}, {0, one.any_source_timer});
    when_sent(asked);
    const lines happened = take_transcript();
    EXPECT_EQ(std::any_of(happened.begin(), happened.end(),
                          [](const std::string &line) {
                            return line == "setsockopt(wan0, MCAST_BLOCK_SOURCE) group=ff0e::1 source=2001:db8::1 "
                                           "ifindex=2";
                          }),
              one.is_blocked);
    mld_unlink_group(br0, asked);
    mld_release_group(asked);
  }
}

} // namespace
