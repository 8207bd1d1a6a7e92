"""tarn-format(5) has every field of every record with its offset and size, and its worked example
is a map that the checksums and the program accept."""
import os
import re
import tempfile
import unittest
from pathlib import Path

from pages import main, page, plain, read, run, section

TEXT = page("tarn-format.5")
HEADERS = ["include/metadata.h", "src/tbl/tbl_format.h", "src/fri/fri_format.h",
           "src/map/map_format.h", "src/jnl/jnl_format.h"]
SIZES = {"uint8_t": 1, "uint16_t": 2, "uint32_t": 4, "int32_t": 4, "uint64_t": 8, "tbl_entry": 2,
         "fri_entry": 8, "map_entry": 8, "metadata_head": 64}
SOURCE = "\n".join(read(each) for each in HEADERS)


def constant(word):
    if word.isdigit():
        return int(word)
    return int(re.search(rf"constexpr \w+ {word} = (\d+);", SOURCE).group(1))


def fields_of(record, first=0):
    """The fields of a packed record as (offset, size as the page writes it, name)."""
    body = re.search(rf"struct \[\[gnu::packed\]\] {record} \{{(.*?)\n\}};", SOURCE, re.S).group(1)
    fields, offset = [], first
    for kind, name, count in re.findall(r"^ {4}(\w+) (\w+)(?:\[(\w+)\])?;", body, re.M):
        width, number = SIZES[kind], constant(count) if count else 1
        unnamed = re.match("unused|reserved|head$", name)
        size = str(width * number)
        if kind.startswith(("uint", "int")) and not count:
            size = ("s" if kind == "int32_t" else "u") + str(8 * width)
        elif count and kind.endswith("_entry"):
            size = f"{number} * {width}"
        name = re.sub(r"^checksum\d$", "checksum", name)
        fields.append((offset, str(width * number) if unnamed else size, "" if unnamed else name))
        offset += width * number
    return fields


def rows_of(text):
    """The rows of the first table in `text` that has fields: (offsets, size, name)."""
    table = re.search(r"^\.It Sy byte Ta [^\n]*Ta Sy field .*?^\.El$", text, re.M | re.S).group()
    rows = []
    for line in table.split("\n")[1:-1]:
        cells = plain(line[4:]).split(" Ta ")
        if cells[0]:
            name = cells[-2][3:] if cells[-2].startswith("Va ") else cells[-2]
            rows.append((*map(int, cells[:-3]), cells[-3], name))
    return rows


def in_file(offset, constant_nodes=2):
    """Where a byte of a header in memory lies in its file."""
    return offset if offset < 64 * constant_nodes else offset - 64 * constant_nodes + 4096


class records(unittest.TestCase):
    def test_the_common_head(self):
        rows = rows_of(section(TEXT, "The common head", "Ss"))
        self.assertEqual(rows, fields_of("metadata_head"))

    def test_the_header_of_the_table(self):
        self.assertEqual(rows_of(section(TEXT, "THE EXTENT TABLE")), fields_of("tbl_header"))

    def test_the_headers_with_variable_nodes(self):
        for heading, record in (("THE GROUP INDEX", "fri_header"), ("MAPS", "map_header"),
                                ("THE JOURNAL", "jnl_header")):
            wanted = [(in_file(offset), offset, size, name)
                      for offset, size, name in fields_of(record)]
            self.assertEqual(rows_of(section(TEXT, heading)), wanted)

    def test_an_entry_of_the_index(self):
        rows = rows_of(section(TEXT, "An entry of the index", "Ss"))
        self.assertEqual(rows, fields_of("fri_entry"))

    def test_a_block_of_the_ring(self):
        wanted = fields_of("jnl_block_header")
        wanted += [(32, "u32", "type"), (36, "472", ""), (508, "u32", "checksum")]
        self.assertEqual(rows_of(section(TEXT, "A block of the ring", "Ss")), wanted)

    def test_the_entries_of_file_blocks(self):
        tables = section(TEXT, "FILE blocks", "Ss").split(".Bl ")[1:]
        self.assertEqual(rows_of(tables[0]), [(0, "u32", "type"), (4, "16", "uuid")])
        records = ("jnl_tbl_record", "jnl_fri_record", "jnl_fri_var0_record", "jnl_map_record")
        self.assertEqual(len(tables), 1 + len(records))
        for table, record in zip(tables[1:], records):
            wanted = [(offset, str(SIZES[size]) if size in SIZES else size, name)
                      for offset, size, name in fields_of(record, 20)]
            self.assertEqual(rows_of(table), wanted, record)

    def test_the_history_records(self):
        for heading, kind in (("XCOPY, type 5", "xcopy"), ("MOVES, type 6", "moves"),
                              ("UNMAP, type 7", "unmap"), ("ALLOC, type 8", "alloc")):
            fields = fields_of(f"ej_block_history_{kind}", 32)[1:]  # the type is in the table above
            rows = rows_of(section(TEXT, heading, "Ss"))
            end = rows.pop()  # what is left of the block
            self.assertEqual(rows, fields, kind)
            self.assertEqual((end[2], end[0] + int(end[1])), ("", 508), kind)

    def test_every_row_of_the_dumps_is_a_field_of_the_page(self):
        named = set(re.findall(r"(?:FIELD|IMAGES)_ROW\(\w+, (\w+)", SOURCE)) - {"member"}
        self.assertGreater(len(named), 60)
        on_page = set(re.findall(r"Ta Va (\w+) Ta", TEXT))
        self.assertEqual(named - on_page, set())

    def test_the_words_of_the_status(self):
        source = read("include/journal_status.h")
        for word, name in (("init", "INIT"), ("success", "SUCCESS"), ("abnormal", "ABNORMAL"),
                           ("bad", "BAD"), ("read-only", "RO")):
            value = re.search(rf"JNL_STATUS_{name} = (0x\w+);", source).group(1)
            self.assertIn(f".It {word} Ta {value} Ta ", TEXT)


def crc32c(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0x82F63B78 if crc & 1 else 0)
    return crc ^ 0xFFFFFFFF


class worked_example(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.file = bytearray(1048576 + 512)
        lines = re.findall(r"^([0-9a-f]{8}): ([0-9a-f ]+)$", section(TEXT, "EXAMPLES"), re.M)
        for at, text in lines:
            data = bytes.fromhex(text)
            assert len(data) == 16
            cls.file[int(at, 16):int(at, 16) + 16] = data

    def number(self, at, size):
        return int.from_bytes(self.file[at:at + size], "little")

    def test_its_checksums_are_right_and_in_the_text(self):
        self.assertEqual(crc32c(b"123456789"), 0xE3069283)
        text = section(TEXT, "EXAMPLES")
        for at in (0, 64, 4096, 4160, 4224):
            node = self.file[at:at + 64]
            self.assertEqual(self.number(at, 4), crc32c(bytes(4) + node[4:]), at)
            self.assertIn(f"{self.number(at, 4):#010x}".upper().replace("0X", "0x"), text)
        self.assertEqual(self.number(4164, 4), crc32c(self.file[8192:8208]))
        self.assertIn("checksum 0x61073EE6 and 1 row", text)
        self.assertEqual(self.number(4164, 4), 0x61073EE6)
        node = self.file[1048576:1048576 + 508]
        self.assertEqual(self.number(1048576 + 508, 4), crc32c(node + bytes(4)))
        self.assertIn("is 0x0C6B0A34.", text)
        self.assertEqual(self.number(1048576 + 508, 4), 0x0C6B0A34)

    def test_the_constants_of_the_page_are_those_of_zeros(self):
        self.assertEqual(crc32c(bytes(64)), 0x03C8EB67)
        self.assertEqual(crc32c(bytes(512)), 0x30FCEDC0)
        wanted = "64 zero bytes have the checksum 0x03C8EB67, 512 zero bytes 0x30FCEDC0."
        self.assertIn(wanted, TEXT)

    def test_the_program_reads_what_the_text_says(self):
        with tempfile.TemporaryDirectory() as directory:
            path = str(Path(directory) / "map")
            Path(path).write_bytes(self.file)
            header = run(os.environ["TARN"], "--search", "map", "-p", path, "-m").stdout
            entries = [run(os.environ["TARN"], "--search", "map", "-p", path, "-a", lea).stdout
                       for lea in "012"]
        shown = dict(line.removeprefix("TARN_INFO: ").split() for line in header.splitlines())
        self.assertEqual(shown["map_uuid"], "c0ffee00-1122-3344-5566-778899aabbcc")
        names = ("map_version", "map_type", "map_attribute", "map_lb_size", "map_total_count",
                 "map_mapped_count", "map_sync_count")
        self.assertEqual([shown[name] for name in names],
                         ["65536", "4", "0x00000000", "512", "3", "2", "7"])
        self.assertEqual([entry.splitlines()[1] for entry in entries],
                         ["TARN_INFO: poolnum[0] mapped[1] sync[0] lpa 1661",
                          "TARN_INFO: poolnum[0] mapped[0] sync[0] lpa 0",
                          "TARN_INFO: poolnum[0] mapped[1] sync[0] lpa 8823"])


if __name__ == "__main__":
    main()
