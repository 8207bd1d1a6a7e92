// The script that makes the table: what it must not accept. Each test gives it a small program.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace fs = std::filesystem;

class explain_patterns : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/patterns-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        fs::create_directories(dir_ / "src");
    }
    void TearDown() override { fs::remove_all(dir_); }

    void write(const char* name, const std::string& text) const {
        std::ofstream(dir_ / name) << text;
    }
    [[nodiscard]] std::string read(const char* name) const {
        std::stringstream text;
        text << std::ifstream(dir_ / name).rdbuf();
        return text.str();
    }
    // The exit status of the script; what it complains about goes to "complaint".
    [[nodiscard]] int run() const {
        const std::string dir = dir_.string();
        const std::string command = "python3 " TARN_PATTERNS " " + dir + "/src " + dir +
                                    "/page.md " + dir + "/table.cpp 2>" + dir + "/complaint";
        return WEXITSTATUS(std::system(command.c_str()));  // NOLINT(cert-env33-c): fixed words
    }
    void write_program(const std::string& body) const {
        write("src/a.cpp", "int work(int fd) {\n" + body + "}\n");
    }

    fs::path dir_;
};

static std::string entry_of(const std::string& format) {
    return "### `" + format + "`\n\n- Means: A.\n- Risk: none.\n- Normal: no.\n- Next: B.\n\n";
}

TEST_F(explain_patterns, a_message_with_an_entry_is_a_row) {
    write_program("    log_err(\"one \"\n            \"%s\\n\", x);\n");
    write("page.md", entry_of("one %s"));
    EXPECT_EQ(run(), 0);
    EXPECT_NE(read("table.cpp").find("{\"one %s\", message_kind::log, \"work\","),
              std::string::npos);
}

TEST_F(explain_patterns, a_message_without_an_entry_ends_the_build) {
    write_program("    log_err(\"one\\n\");\n    puts(\"TARN_INFO: two\");\n");
    write("page.md", entry_of("one"));
    EXPECT_EQ(run(), 1);
    EXPECT_NE(read("complaint").find("a.cpp:3: no entry in"), std::string::npos);
    EXPECT_NE(read("complaint").find("TARN_INFO: two"), std::string::npos);
}

TEST_F(explain_patterns, an_entry_without_a_message_ends_the_build) {
    write_program("    log_err(\"one\\n\");\n");
    write("page.md", entry_of("one") + entry_of("two"));
    EXPECT_EQ(run(), 1);
    EXPECT_NE(read("complaint").find("no message reads: two"), std::string::npos);
}

TEST_F(explain_patterns, a_format_that_is_no_literal_ends_the_build) {
    write_program("    log_err(words[fd], x);\n");
    write("page.md", "");
    EXPECT_EQ(run(), 1);
    EXPECT_NE(read("complaint").find("a.cpp:2: the format is no literal"), std::string::npos);
}

TEST_F(explain_patterns, a_format_of_conversions_alone_ends_the_build) {
    write_program("    log_err(\"%s %s\\n\", words[fd], x);\n");
    write("page.md", entry_of("%s %s"));
    EXPECT_EQ(run(), 1);
    EXPECT_NE(read("complaint").find("nothing to recognise"), std::string::npos);
}

TEST_F(explain_patterns, an_entry_without_a_field_ends_the_build) {
    write_program("    log_err(\"one\\n\");\n");
    write("page.md", "### `one`\n\n- Means: A.\n- Risk: none.\n- Normal: no.\n");
    EXPECT_EQ(run(), 1);
    EXPECT_NE(read("complaint").find("has no field Next"), std::string::npos);
    write("page.md", "### `one`\n\n- Means: A.\n- Risk: small.\n- Normal: no.\n- Next: B.\n");
    EXPECT_EQ(run(), 1);
    EXPECT_NE(read("complaint").find("Risk begins with none of"), std::string::npos);
}

TEST_F(explain_patterns, every_way_to_name_the_function_is_known) {
    write("src/a.cpp",
          "static constexpr const char* NAME = \"whole\";\n"
          "int first(int fd) {\n    log_err_as(\"other\", \"one\\n\");\n}\n"
          "int second(int fd) {\n    log_keep_as(NAME, keep_reason::damage, \"two\\n\");\n}\n"
          "int third(const char* name) {\n    log_err_as(name, \"three\\n\");\n}\n"
          "int fourth() {\n    log_keep(keep_reason::damage, \"four\\n\");\n}\n"
          "int fifth() {\n    tarn_log(\"%s(%d) five\\n\", NAME, __LINE__);\n}\n");
    write("page.md", entry_of("one") + entry_of("two") + entry_of("three") + entry_of("four") +
                         entry_of("five"));
    EXPECT_EQ(run(), 0) << read("complaint");
    const std::string table = read("table.cpp");
    EXPECT_NE(table.find("{\"one\", message_kind::log, \"other\","), std::string::npos);
    EXPECT_NE(table.find("{\"two\", message_kind::log, \"whole\","), std::string::npos);
    EXPECT_NE(table.find("{\"three\", message_kind::log, \"\","), std::string::npos);
    EXPECT_NE(table.find("{\"four\", message_kind::log, \"fourth\","), std::string::npos);
}

TEST_F(explain_patterns, comments_and_declarations_are_no_messages) {
    write("src/a.cpp",
          "// log_err(\"in a comment\\n\");\n"
          "void tarn_log(const char* format, ...);\n"
          "#define log_err(message, ...) log_err_as(__func__, message)\n"
          "int first() {\n    puts(fd < 0 ? \"one\" : \"two\");\n}\n");
    write("page.md", entry_of("one") + entry_of("two"));
    EXPECT_EQ(run(), 0) << read("complaint");
}
