// Command lines that occur on every server, on both volumes of a damaged_server. Sound volumes stay
// sound.
#pragma once

inline constexpr const char* EVERYDAY_COMMANDS =
    "tarn --ckvjnl\n"
    "tarn --startup-replay\n"
    "tarn --onekeycheck\n"
    "tarn --search jnl -m\n"
    "for V in /volume1 /volume2; do\n"
    "    F=\"--fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL\"\n"
    "    tarn --fullck --volpath $V\n"
    "    tarn --freeck $F\n"
    "    tarn --reconstruct --volpath $V\n"
    "    rm -r $V/@EP_FIX\n"
    "    find $V/@iSCSITrg -name '*_Extent_*' | while read -r MAP; do\n"
    "        tarn --check-map --mappath $MAP </dev/null\n"
    "    done\n"
    "    tarn --vaaifix $F\n"
    "    echo YES | tarn --punch -p $V -o 0 -l 10\n"
    "done\n"
    "mv $J $J.aside\n"
    "tarn --onekeycheck\n";
