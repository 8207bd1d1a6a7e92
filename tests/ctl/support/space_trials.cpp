#include "ctl/support/space_trials.h"

#include "ctl/support/check_run.h"
#include "support/scratch_file.h"
#include "system/support/shell.h"

std::string try_space(const std::string& oracle, unsigned seed) {
    const scratch_dir place;
    const ran done =
        shell("python3 " TARN_ORACLES "/" + oracle +
              "_oracle.py " TARN_CTL_PROGRAM " " TARN_PROGRAM " " TARN_LAB_PROGRAM " " +
              std::to_string(seed) + " " + place.path());
    const std::string words = done.text.substr(0, done.text.rfind('\n'));
    return done.status == 0 ? words : "exit " + std::to_string(done.status) + ": " + words;
}

ctl_run run_ctl(const std::string& sample, const std::string& words) {
    const check_run done = run_limited("env TARN_PLATFORM_CONF=" + sample + "/platform.conf " +
                                       TARN_CTL_PROGRAM + " " + words);
    return {done.status, done.out, done.err};
}
