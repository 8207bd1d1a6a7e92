// The hardening of the built program, as seen in its file: program headers, dynamic section,
// undefined symbols.
#include <cstring>
#include <elf.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

class hardening : public testing::Test {
protected:
    void SetUp() override {
#ifndef TARN_HARDENED
        GTEST_SKIP() << "hardened are builds that optimise, without sanitizers and counters";
#endif
        ASSERT_EQ(memcmp(at<Elf64_Ehdr>(0).e_ident, ELFMAG, SELFMAG), 0);
        ASSERT_EQ(at<Elf64_Ehdr>(0).e_ident[EI_CLASS], ELFCLASS64);
    }

    template <class Record>
    [[nodiscard]] Record at(size_t offset) const {
        Record record = {};
        EXPECT_LE(offset + sizeof record, bytes_.size());
        memcpy(&record, bytes_.data() + offset, sizeof record);
        return record;
    }
    template <class Record>
    [[nodiscard]] std::vector<Record> table(size_t offset, size_t bytes) const {
        std::vector<Record> all;
        for (size_t i = 0; i < bytes / sizeof(Record); i++) {
            all.push_back(at<Record>(offset + i * sizeof(Record)));
        }
        return all;
    }
    [[nodiscard]] std::vector<Elf64_Shdr> sections() const {
        const auto header = at<Elf64_Ehdr>(0);
        return table<Elf64_Shdr>(header.e_shoff, header.e_shnum * sizeof(Elf64_Shdr));
    }
    [[nodiscard]] bool has_program_header(uint32_t type) const {
        const auto header = at<Elf64_Ehdr>(0);
        for (const auto& row :
             table<Elf64_Phdr>(header.e_phoff, header.e_phnum * sizeof(Elf64_Phdr))) {
            if (row.p_type == type) {
                return true;
            }
        }
        return false;
    }
    // The value of a tag of the dynamic section, 0 without it.
    [[nodiscard]] uint64_t dynamic(int64_t tag) const {
        for (const auto& section : sections()) {
            if (section.sh_type != SHT_DYNAMIC) {
                continue;
            }
            for (const auto& row : table<Elf64_Dyn>(section.sh_offset, section.sh_size)) {
                if (row.d_tag == tag) {
                    return row.d_un.d_val;
                }
            }
        }
        return 0;
    }
    [[nodiscard]] std::vector<std::string> wanted_symbols() const {
        const std::vector<Elf64_Shdr> all = sections();
        std::vector<std::string> names;
        for (const auto& section : all) {
            if (section.sh_type != SHT_DYNSYM) {
                continue;
            }
            const size_t texts = all.at(section.sh_link).sh_offset;
            for (const auto& symbol : table<Elf64_Sym>(section.sh_offset, section.sh_size)) {
                if (symbol.st_shndx == SHN_UNDEF) {
                    names.emplace_back(bytes_.data() + texts + symbol.st_name);
                }
            }
        }
        return names;
    }
    [[nodiscard]] bool wants(const std::string& name) const {
        for (const std::string& symbol : wanted_symbols()) {
            if (symbol == name) {
                return true;
            }
        }
        return false;
    }

private:
    static std::vector<char> read_program() {
        std::ifstream file(TARN_PROGRAM, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::vector<char> bytes_ = read_program();
};

TEST_F(hardening, relocations_are_all_made_at_the_start_and_are_then_read_only) {
    EXPECT_TRUE(has_program_header(PT_GNU_RELRO));
    EXPECT_TRUE((dynamic(DT_FLAGS) & DF_BIND_NOW) != 0 || (dynamic(DT_FLAGS_1) & DF_1_NOW) != 0);
}

TEST_F(hardening, the_program_runs_at_any_address) {
    EXPECT_EQ(at<Elf64_Ehdr>(0).e_type, ET_DYN);
    EXPECT_NE(dynamic(DT_FLAGS_1) & DF_1_PIE, 0u);
}

TEST_F(hardening, stacks_are_guarded) {
    EXPECT_TRUE(wants("__stack_chk_fail"));
}

// Lines are formatted into buffers of known size all over the program.
TEST_F(hardening, copies_and_formats_are_checked) {
    EXPECT_TRUE(wants("__snprintf_chk"));
    EXPECT_TRUE(wants("__vsnprintf_chk"));
    EXPECT_FALSE(wants("vsnprintf"));
}
