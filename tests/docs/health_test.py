"""The lines of tarnctl health, and of the check that it reports."""
from installed import main
from server import damage, on_a_server, row

STATE = "--state $STATE/health.json"
CHECKED = f"tarnctl check {STATE} >/dev/null; "
LEAKED = damage("leak") + CHECKED + "[ $? = 3 ]; "

ROWS = [
    row("tarnctl check --state /var/lib/tarn/health.json", ("Clean: nothing is wrong. Exit status 0.",),
        then=f"[ -s $STATE/health.json ] && tarnctl health {STATE}"),
    row("tarnctl check --state FILE", ("Clean: nothing is wrong. Exit status 0.",),
        words={"FILE": "$STATE/health.json"}, then="[ -s $STATE/health.json ]"),
    row("tarnctl health", ("Healthy: nothing is known to be wrong. Exit status 0.",), more=STATE,
        first=CHECKED),
    # Nothing is OK that nobody has checked.
    row("tarnctl health", ("The last full check is not known", "Unknown:", "Exit status 6."), 6,
        page="health.md", more=STATE),
    row("tarnctl health --json", ('{"record":"start"', '{"record":"summary"'), more=STATE, first=CHECKED),
    row("tarnctl health --format prometheus", ("tarn_health_status 3", 'tarn_check_findings{code="R04"} 1'),
        3, more=STATE, first=LEAKED),
    row("tarnctl health --format checkmk", ('1 "Tarn metadata" check_age=', "findings_count=1;;;0|"), 3,
        more=STATE, first=LEAKED),
    row("exec tarnctl health --format checkmk", ('2 "Tarn metadata" check_age=', "findings_count=1;;;0|",
        "S01, ", "/lab/volume2: named in the configuration, but not ready for use. The last full check, ",
        " ago, found lost space or wrong counts."), 4, more=STATE, first=LEAKED + "mv $W $LAB/away"),
    row("tarnctl health --format nagios", ("TARN OK", "'check_age'="), more=STATE, first=CHECKED),
    row("tarnctl health --format nagios", ("TARN UNKNOWN",), 3, more=STATE),
    row("command[check_tarn]=/usr/bin/sudo /usr/sbin/tarnctl health --format nagios",
        ("TARN CRITICAL - S01, ", "'findings_count'=1;;;0", "/lab/volume1 used'=8605663232B;;;0"), 2,
        words={"command[check_tarn]=/usr/bin/sudo /usr/sbin/": ""}, more=STATE,
        first=LEAKED + "mv $W $LAB/away"),

    # -- cron and systemd --
    row('17 3 * * 0 root o=$(tarnctl check --quiet --state /var/lib/tarn/health.json 2>&1) || echo "$o"', "",
        words={"17 3 * * 0 root ": ""}, then="[ -s $STATE/health.json ]"),
    row('17 3 * * 0 root o=$(tarnctl check --quiet --state /var/lib/tarn/health.json 2>&1) || echo "$o"',
        ("Only lost space or wrong counts", "Exit status 3."), words={"17 3 * * 0 root ": ""},
        first=damage("leak")),
    row("*/5 * * * * root d=/var/lib/prometheus/node-exporter; tarnctl health --format prometheus "
        ">$d/tarn.new; mv $d/tarn.new $d/tarn.prom", "", words={"*/5 * * * * root ": "",
        "prometheus >": "prometheus " + STATE + " >"}, first=CHECKED,
        then="grep '^tarn_health_status 0$' $STATE/tarn.prom && [ ! -e $STATE/tarn.new ]"),
    row("""ExecStart=/bin/sh -c 'tarnctl health | mail -s "storage metadata" root'""", "",
        words={"ExecStart=": "", "health |": "health " + STATE + " |"}, first=LEAKED,
        then="grep 'found lost space or wrong counts' $STATE/mail"),
]


class health(on_a_server):
    def test_lines_do_what_the_pages_say(self):
        self.play(ROWS)


if __name__ == "__main__":
    main()
