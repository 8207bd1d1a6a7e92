// The page docs/inventory.md names every option, status and code.
#include <gtest/gtest.h>

#include "ctl/support/page.h"

TEST(inventory_page, has_every_option_status_and_code) {
    const std::string text = page_text("inventory.md");
    expect_options(text, "inventory");
    expect_options(text, "guard");
    expect_statuses(text, {"0", "32", "8, 16"});
    for (const char* code :
         {"S01", "H05", "J03", "M01", "S04", "S05", "S06", "S07", "S08", "S09"}) {
        EXPECT_NE(text.find(code), std::string::npos) << code;
    }
}
