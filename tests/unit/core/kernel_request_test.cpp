#include "core/kernel_request.h"

#include "fixture.h"

#include <cerrno>
#include <linux/mroute6.h>
#include <netinet/in.h>

namespace {

using namespace scripted;

constexpr kernel_option option{IPPROTO_IPV6, MRT6_INIT, "MRT6_INIT"};
constexpr log_site site{"mld", "mld_caller", 5};

struct kernel_requests : core_fixture {
  bool is_accepted = false;
  int reason = 0;

  void when_requested(request_log style) {
    when([&] {
      errno = 0;
      is_accepted = kernel_request(site, style, MLD_SOCKET, option, 1);
      reason = errno;
    });
  }
};

TEST_F(kernel_requests, accepted_request_is_logged_by_name_in_either_style) {
  for (const request_log style : {request_log::either, request_log::both}) {
    when_requested(style);
    EXPECT_TRUE(is_accepted);
    then({
        "setsockopt(mld, MRT6_INIT) = 1",
        logged_debug("mld_caller", "setsockopt: MRT6_INIT"),
    });
  }
}

TEST_F(kernel_requests, refused_request_is_logged_once_where_the_caller_wants_one_line) {
  given_failure("setsockopt(mld, MRT6_INIT)", EADDRINUSE);
  when_requested(request_log::either);
  EXPECT_FALSE(is_accepted);
  EXPECT_EQ(reason, EADDRINUSE);
  then({
      "setsockopt(mld, MRT6_INIT) = 1",
      logged_error("mld_caller", "setsockopt: MRT6_INIT fail!!!"),
  });
}

TEST_F(kernel_requests, refused_request_is_followed_by_the_plain_line_where_the_caller_wants_both) {
  given_failure("setsockopt(mld, MRT6_INIT)", EACCES);
  when_requested(request_log::both);
  EXPECT_FALSE(is_accepted);
  EXPECT_EQ(reason, EACCES);
  then({
      "setsockopt(mld, MRT6_INIT) = 1",
      logged_error("mld_caller", "setsockopt: MRT6_INIT fail!!!"),
      logged_debug("mld_caller", "setsockopt: MRT6_INIT"),
  });
}

TEST_F(kernel_requests, request_of_raw_bytes_passes_its_length) {
  const int value = 1;
  when([&] { kernel_request(site, request_log::either, MLD_SOCKET, option, &value, 0); });
  then_requests({"setsockopt(mld, MRT6_INIT) length=0"});
}

TEST_F(kernel_requests, lines_can_be_written_by_themselves) {
  when([] {
    log_request_failed(site, option);
    log_request_done(site, option);
  });
  then({
      logged_error("mld_caller", "setsockopt: MRT6_INIT fail!!!"),
      logged_debug("mld_caller", "setsockopt: MRT6_INIT"),
  });
}

} // namespace
