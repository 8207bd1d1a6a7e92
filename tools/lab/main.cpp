// tarn-lab: makes sample volumes with known contents, runs their service, damages them, and
// compares volumes with their expected contents. It has its own model of the storage service and
// its own code for the on-disk formats.
#include <cstdio>

#include "lab/age.h"
#include "lab/continued.h"
#include "lab/crash.h"
#include "lab/damage.h"
#include "lab/disk.h"
#include "lab/lun_image.h"
#include "lab/options.h"
#include "lab/run.h"
#include "lab/sample.h"
#include "lab/verify.h"

namespace lab {

constexpr int EXIT_DONE = 0;
constexpr int EXIT_DIFFERENCE = 1;
constexpr int EXIT_USAGE = 2;

static int make(const options& asked) {
    const std::string directory = prepare_directory(asked.directory);
    if (directory.empty()) {
        return EXIT_DIFFERENCE;
    }
    progress bar = progress_of_terminal();
    model m = make_sample(asked.sample, &bar);
    if (m.sample.crash) {
        lose_writes(&m);
    }
    if (!write_sample(m, directory, &bar)) {
        return EXIT_DIFFERENCE;
    }
    const size_t volumes = m.volumes.size();
    (void)printf("%s: %zu volume%s, %zu files, %llu complete transactions; %s.\n",
                 directory.c_str(), volumes, volumes == 1 ? "" : "s", list_files(m).size(),
                 static_cast<unsigned long long>(m.journal.commits),
                 m.sample.crash ? crash_in_words(m).c_str() : "shut down cleanly");
    return EXIT_DONE;
}

static int expect(const options& asked) {
    progress bar = progress_of_terminal();
    expected_states states = {};
    if (!expect_states(asked.directory, &bar, &states)) {
        return EXIT_DIFFERENCE;
    }
    const std::string reason = reason_to_refuse(states.first);
    (void)printf("%s%s\n", reason.empty() ? "recovers" : "refuses: ", reason.c_str());
    return EXIT_DONE;
}

static truth truth_of(const options& asked) {
    return asked.refused ? truth::untouched : asked.rebuilt ? truth::rebuilt : truth::recovered;
}

static const char* in_words(truth holds) {
    switch (holds) {
        case truth::untouched:
            return "every file is unchanged, and the journal is marked bad";
        case truth::rebuilt:
            return "every map is as expected, and index and table agree with the maps";
        case truth::recovered:
            break;
    }
    return "every file is as expected";
}

// The first difference, or "" if there is none. If two states are possible, the second counts too.
static std::string verify_states(expected_states* states, truth wanted,
                                 const std::string& directory, progress* bar) {
    std::string difference = verify_sample(&states->first, wanted, directory, bar);
    const bool other = !difference.empty() && states->two &&
                       verify_sample(&states->also, wanted, directory, bar).empty();
    return other ? "" : difference;
}

static int verify(const options& asked) {
    progress bar = progress_of_terminal();
    expected_states states = {};
    if (!expect_states(asked.directory, &bar, &states)) {
        return EXIT_DIFFERENCE;
    }
    const truth wanted = truth_of(asked);
    if (states.first.ran && wanted == truth::untouched) {
        (void)complain_of(asked.directory, "has run: what the run left is not known");
        return EXIT_DIFFERENCE;
    }
    const std::string difference = verify_states(&states, wanted, asked.directory, &bar);
    if (!difference.empty()) {
        (void)printf("%s\n", difference.c_str());
        return EXIT_DIFFERENCE;
    }
    (void)printf("%s: %s.\n", asked.directory.c_str(), in_words(wanted));
    return EXIT_DONE;
}

static int damage(const options& asked) {
    constexpr uint64_t STREAM_DAMAGE = 3;
    progress bar = progress_of_terminal();
    expected_states states = {};
    if (!expect_states(asked.directory, &bar, &states)) {
        return EXIT_DIFFERENCE;
    }
    const model& m = states.first;
    if (asked.volume > m.volumes.size()) {
        (void)refuse("the sample has no volume " + std::to_string(asked.volume));
        return EXIT_DIFFERENCE;
    }
    damage_site site = {asked.directory, &m, static_cast<size_t>(asked.volume - 1),
                        random_of(asked.seed, STREAM_DAMAGE)};
    const std::string done = find_damage(asked.kind)->function(&site);
    if (done.empty()) {
        return EXIT_DIFFERENCE;
    }
    (void)printf("%s\n", done.c_str());
    return EXIT_DONE;
}

static int run_sample(const options& asked) {
    progress bar = progress_of_terminal();
    return run_service({asked.directory, asked.seed, asked.seconds, asked.rate}, &bar)
               ? EXIT_DONE
               : EXIT_DIFFERENCE;
}

static int age(const options& asked) {
    progress bar = progress_of_terminal();
    return age_sample({asked.directory, asked.seed, asked.transactions, asked.clean}, &bar)
               ? EXIT_DONE
               : EXIT_DIFFERENCE;
}

static int image(const options& asked) {
    progress bar = progress_of_terminal();
    expected_states states = {};
    return expect_states(asked.directory, &bar, &states) &&
                   write_lun_image(states, asked.lun, asked.file)
               ? EXIT_DONE
               : EXIT_DIFFERENCE;
}

static int maps(const options& asked) {
    progress bar = progress_of_terminal();
    expected_states states = {};
    if (!expect_states(asked.directory, &bar, &states)) {
        return EXIT_DIFFERENCE;
    }
    const std::string lines = list_maps(states.first);
    if (states.two && list_maps(states.also) != lines) {
        (void)complain_of(asked.directory, "two states are possible: the run was killed in a step");
        return EXIT_DIFFERENCE;
    }
    (void)fputs(lines.c_str(), stdout);
    return EXIT_DONE;
}

static int print_help() {
    (void)printf("%s%s", usage_text(), damage_words().c_str());
    return EXIT_DONE;
}

static int print_version() {
    (void)puts("tarn-lab " TARN_VERSION);
    return EXIT_DONE;
}

static bool makes_sense(const options& asked) {
    if (asked.what == command::damage && find_damage(asked.kind) == nullptr) {
        (void)fprintf(stderr, "tarn-lab: no such kind of damage: %s\n", asked.kind.c_str());
        return false;
    }
    return true;
}

static int obey(const options& asked) {
    switch (asked.what) {
        case command::make:
            return make(asked);
        case command::expect:
            return expect(asked);
        case command::damage:
            return damage(asked);
        case command::run:
            return run_sample(asked);
        case command::age:
            return age(asked);
        case command::image:
            return image(asked);
        case command::maps:
            return maps(asked);
        case command::help:
            return print_help();
        case command::version:
            return print_version();
        case command::verify:
            break;
    }
    return verify(asked);
}

}  // namespace lab

int main(int argc, char** argv) {
    lab::options asked;
    if (!lab::parse_options(argc, argv, &asked) || !lab::makes_sense(asked)) {
        (void)fputs("try 'tarn-lab --help'\n", stderr);
        return lab::EXIT_USAGE;
    }
    const int status = lab::obey(asked);
    const bool printed = fflush(stdout) == 0 && ferror(stdout) == 0;
    return printed ? status : lab::EXIT_DIFFERENCE;
}
