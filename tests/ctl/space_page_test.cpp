// The page docs/space.md names every option and exit status of both commands.
#include <gtest/gtest.h>

#include "ctl/support/page.h"

TEST(space_page, has_every_option_and_exit_status) {
    const std::string text = page_text("space.md");
    expect_options(text, "space");
    expect_options(text, "punch");
    expect_statuses(text, {"0", "6", "8", "16", "32"});
}
