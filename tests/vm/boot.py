"""Runs the scenarios of one boot and ends the machine: `boot.py list N` prints their names, `boot.py run N PORT` runs
them and writes the results to PORT."""

import sys

# Their scenarios run in this order.
import installation  # noqa: F401
import quota  # noqa: F401
import services  # noqa: F401
import space  # noqa: F401
import lifecycle  # noqa: F401
from guest import cut_power, power_off, run
from scenario import Report, names

LAST_BOOT = 2


def main():
    verb, boot = sys.argv[1], int(sys.argv[2])
    if verb == "list":
        print("\n".join(names(boot)))
        return
    with open(sys.argv[3], "w", encoding="utf-8") as port:
        run("systemctl", "is-system-running", "--wait", check=False, timeout=300)
        report = Report(port)
        report.run(boot)
        report.line(f"end of boot {boot}")
    if boot < LAST_BOOT:
        cut_power()
    power_off()


if __name__ == "__main__":
    main()
