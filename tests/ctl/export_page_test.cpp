// The page on the export has every option and every exit status.
#include <gtest/gtest.h>

#include "ctl/support/page.h"

TEST(export_page, has_every_option_and_exit_status) {
    const std::string text = page_text("export.md");
    expect_options(text, "export");
    expect_statuses(text, {"0", "4", "8", "16", "32"});
}
