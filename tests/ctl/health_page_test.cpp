// The page about monitoring names every option, exit status and metric.
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>

#include "ctl/support/page.h"

TEST(health_page, has_every_option_of_the_command) {
    expect_options(page_text("health.md"), "health");
}

TEST(health_page, has_every_exit_status) {
    expect_statuses(page_text("health.md"), {"0", "3", "4", "5", "6", "8", "16"});
}

// The metrics as the source names them.
TEST(health_page, has_every_metric) {
    std::ifstream file(TARN_SOURCES "/../tools/ctl/health/print_prometheus.cpp");
    std::ostringstream source;
    source << file.rdbuf();
    const std::string code = source.str();
    const std::string text = page_text("health.md");
    static const std::regex name("begin\\(\\s*\"(tarn_[a-z_]+)\"");
    size_t metrics = 0;
    for (std::sregex_iterator at(code.begin(), code.end(), name); at != std::sregex_iterator();
         ++at, metrics++) {
        EXPECT_NE(text.find("\n| `" + (*at)[1].str() + "` | "), std::string::npos) << (*at)[1];
    }
    EXPECT_EQ(metrics, 13u);
}
