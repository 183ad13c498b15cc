"""The package comes onto a machine that runs; its daemon is started by systemd and by its socket."""

from guest import PAYLOAD, active, busctl, call, failed_units, launches, output, run, unit
from scenario import expect, scenario


@scenario(1)
def boots(report):
    """the machine boots to multi-user without a failed unit"""
    expect(active("multi-user.target"), "multi-user.target is not active")
    expect(failed_units() == "", failed_units())


@scenario(1)
def installs(report):
    """the package installs with what it depends on"""
    run("apt-get", "install", "--no-install-recommends", "-y", PAYLOAD + "/kelvane.deb", timeout=300)
    report.note(output("dpkg-query", "--show", "kelvane"))
    audit = output("dpkg", "--audit")
    expect(audit == "", audit)


@scenario(1)
def says_ready(report):
    """once installed the daemon runs, has told systemd that it is ready, and has posted that it was launched"""
    state = unit("kelvane.service", "Type", "ActiveState", "SubState")
    expect(state == ["notify", "active", "running"], state)
    expect(launches() == 1, f"it was launched {launches()} times")
    for name in "kelvane.service", "kelvane.socket", "kelvane-daily.timer":
        enabled = output("systemctl", "is-enabled", name, check=False)
        expect(active(name) and enabled == "enabled", output("systemctl", "status", name, check=False))
    expect(failed_units() == "", failed_units())


@scenario(1)
def socket_activation(report):
    """a client's call starts the daemon that was stopped, and is answered"""
    run("systemctl", "stop", "kelvane.service")
    before = launches()
    expect(not active("kelvane.service") and active("kelvane.socket"), output("systemctl", "status", "kelvane.socket"))
    answer = call("clientGetState", "v", "s", "KELVANE_CACHE_ENABLED")
    expect(answer == [[{"type": "x", "data": 1}]] or answer == [[{"type": "b", "data": True}]], answer)
    expect(active("kelvane.service"), "kelvane.service is not active")
    expect(launches() == before + 1, f"launched {launches()} times, {before} before")


@scenario(1)
def grants(report):
    """a user without a grant is not served, and one of the group kelvane is"""
    question = busctl("clientGetState", "v", "s", "KELVANE_CACHE_ENABLED")
    as_user = ["setpriv", "--reuid=games", "--regid=games"]
    code, refused = run(*as_user, "--clear-groups", *question, check=False)
    expect(code != 0, refused)
    report.note(refused)
    group = output("getent", "group", "kelvane").split(":")[2]
    served = output(*as_user, "--groups=" + group, *question)
    expect('"data"' in served, served)
