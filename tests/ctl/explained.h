// What `explain` answers, in memory. The catalogue has two rows of the tests' own.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ctl/explain/explain.h"

inline constexpr finding_row TWO_ROWS[] = {
    {finding_code::R01, "R01", "mapped-but-free", severity::urgent, "mapped to free extents",
     "The next allocation may overwrite them.", "tarnctl check"},
    {finding_code::J06, "J06", "torn-newest", severity::note, "the newest transaction is torn",
     "None.", "tarnctl check"},
};

struct explained {
    int status;
    std::string text;
};

// `input` is what stands on standard input.
inline explained explain_words(std::vector<std::string> words, const std::string& input = "",
                               bool json = false) {
    char* made = nullptr;
    size_t length = 0;
    explain_request request;
    request.words = std::move(words);
    request.json = json;
    request.catalogue = TWO_ROWS;
    request.in = tmpfile();
    request.out = open_memstream(&made, &length);
    fwrite(input.data(), 1, input.size(), request.in);
    rewind(request.in);
    explained answer = {explain(request), {}};
    fclose(request.out);
    fclose(request.in);
    answer.text.assign(made, length);
    free(made);
    return answer;
}
