#include "system/support/sample_server.h"

void make_volume(const sandbox& box, unsigned number, uint8_t pool) {
    make_sample_volume(box.volume(number), pool);
    make_directories(box.volume(number) + "/@EP_trash");
    make_directories(box.volume(number) + "/@Snapshot");
}

void make_volumes(const sandbox& box) {
    make_volume(box, 1, 0x11);
    make_volume(box, 2, 0x22);
}

std::string make_lun(const sandbox& box, unsigned number, const std::string& name,
                     uint8_t uuid_byte) {
    const std::string directory = box.volume(number) + "/@iSCSITrg/LUN";
    make_directories(directory);
    make_map(directory + "/" + name, uuid_of(uuid_byte), uuid_of(number == 1 ? 0x11 : 0x22));
    return directory + "/" + name;
}

std::string replay_lines(unsigned number) {
    const std::string root = "/volume" + std::to_string(number);
    const std::string fri = root + "/@EP/EP_FRI";
    const std::string tbl = root + "/@EP/EP_TBL";
    return "TARN_INFO: REPLAY volume " + root + "\n" +  //
           "TARN_INFO: REPLAY FRI " + fri + "\n" +      //
           "TARN_INFO: FRI " + fri + " replay successfully\n" + "TARN_INFO: UNMAP " + root +
           "/@EP/EP_BUF doesn't exist\n" + "TARN_INFO: ROD " + root +
           "/@EP/EP_ROD doesn't exist\n" + "TARN_INFO: REPLAY TBL " + tbl + "\n" +  //
           "TARN_INFO: TBL " + tbl + " replay successfully\n";
}

std::string consistent_lines(unsigned number) {
    const std::string root = "/volume" + std::to_string(number);
    const std::string both = "FRI " + root + "/@EP/EP_FRI TBL " + root + "/@EP/EP_TBL ";
    return "TARN_INFO: CHECK " + both + "CONSISTENT\n" +
           "TARN_INFO: FRI group_head 0 free_count 0\n" +  //
           "TARN_INFO: " + both + "IS CONSISTENT\n";
}
