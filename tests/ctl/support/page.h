// Pages of docs/: their text, and their sessions, which are played again on a scratch directory in
// the place of /srv. Below: shell.h, nbd.h. Above: the tests of the pages.
#pragma once

#include <initializer_list>
#include <string>

std::string page_text(const std::string& name);  // "space.md"; "../README.md"

// Plays every line "    $ COMMAND" of the text, here documents included, with the built programs,
// and compares what is printed with the indented lines of the page. Line ends, the server's name,
// moments and ages do not count. Fails the test where they differ, or with fewer than `at_least`
// commands. The commands begin in the directory that stands for /srv; /srv/rescue is there.
void expect_session(const std::string& text, size_t at_least);

// The page names every option of the command, but for the common ones, and every status.
void expect_options(const std::string& text, const char* command);
void expect_statuses(const std::string& text, std::initializer_list<const char*> statuses);
