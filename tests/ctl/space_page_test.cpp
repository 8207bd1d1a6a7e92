// The page docs/space.md: its session is what the programs print, and it names every option and
// exit status of both commands.
#include <gtest/gtest.h>

#include "ctl/support/page.h"

TEST(space_page, shows_what_the_commands_print) {
    expect_session(page_text("space.md"), 9);
}

TEST(space_page, has_every_option_and_exit_status) {
    const std::string text = page_text("space.md");
    expect_options(text, "space");
    expect_options(text, "punch");
    expect_statuses(text, {"0", "6", "8", "16", "32"});
}
