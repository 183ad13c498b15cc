"""What a scenario does on the machine: runs commands as its users, writes files, serves directories."""

import contextlib
import functools
import http.server
import os
import pwd
import signal
import subprocess
import threading
import time

from outcome import Failure

USER = "anna"
PATIENCE = 240  # seconds for a command


class Machine:
    """Used by one thread, except for the server's threads."""

    def __init__(self):
        subprocess.run(["useradd", "--create-home", "--uid", "61234", "--shell", "/bin/bash", USER], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.home = pwd.getpwnam(USER).pw_dir
        self.log = []

    # --- commands ---

    def run(self, *command, user=USER, cwd=None, env=None, status=0, shown=True):
        """Returns the command's output; its exit status must be `status` (None: any)."""
        if shown:
            print("    $", " ".join(command), flush=True)
        process = self._start(command, user, cwd, env, subprocess.PIPE)
        try:
            output = process.communicate(timeout=PATIENCE)[0]
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            output = process.communicate()[0]
            raise Failure(f"{' '.join(command)}: not over after {PATIENCE} s: {output[-3000:]}") from None
        if status is not None and process.returncode != status:
            raise Failure(f"{' '.join(command)}: exit status {process.returncode}: {output[-3000:]}")
        return output

    def shell(self, text, **options):
        return self.run("bash", "-euo", "pipefail", "-c", text, **options)

    @contextlib.contextmanager
    def running(self, *command, user=USER, cwd=None, env=None, signal_at_end=signal.SIGTERM):
        """The command runs until the block ends. Its output is in /tmp/running.log."""
        print("    $", " ".join(command), "&", flush=True)
        with open("/tmp/running.log", "ab") as log:
            process = self._start(command, user, cwd, env, log)
        try:
            yield process
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal_at_end)
            try:
                process.wait(timeout=20)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()

    def _start(self, command, user, cwd, env, output):
        who = pwd.getpwnam(user)
        environment = {**os.environ, "HOME": who.pw_dir, "USER": user, "LOGNAME": user, **(env or {})}
        options = {} if user == "root" else {"user": who.pw_uid, "group": who.pw_gid, "extra_groups": []}
        return subprocess.Popen(command, cwd=cwd or who.pw_dir, env=environment, stdin=subprocess.DEVNULL, stdout=output,
                                stderr=subprocess.STDOUT, text=True, errors="replace", start_new_session=True, **options)

    def await_rest(self):
        """Waits until the user has no running process."""
        user = pwd.getpwnam(USER).pw_uid
        await_true(f"{USER}'s processes end", lambda: not processes_of(user), 30)

    # --- files ---

    def path(self, *names):
        return os.path.join(self.home, *names)

    def write(self, path, text, mode=0o644):
        """A file of the user's; a relative path is in the home directory."""
        path = self.path(path)
        missing = []
        directory = os.path.dirname(path)
        while not os.path.isdir(directory):
            missing.append(directory)
            directory = os.path.dirname(directory)
        who = pwd.getpwnam(USER)
        for directory in reversed(missing):
            os.mkdir(directory)
            os.chown(directory, who.pw_uid, who.pw_gid)
        with open(path, "wb") as file:
            file.write(text if isinstance(text, bytes) else text.encode())
        os.chmod(path, mode)
        os.chown(path, who.pw_uid, who.pw_gid)
        return path


# --- a server ---


class Server(http.server.SimpleHTTPRequestHandler):
    """Serves files with the headers that caches need, and records the requests."""

    asked = []

    def end_headers(self):
        self.send_header("Cache-Control", "public, max-age=365000000, immutable")
        self.send_header("ETag", f'"{abs(hash(self.path)):x}"')
        super().end_headers()

    def do_GET(self):
        self.asked.append(self.path)
        super().do_GET()

    def log_message(self, *_):
        pass


@contextlib.contextmanager
def serving(directory, port=0):
    """A web server of `directory` on 127.0.0.1: its address, and the list of the paths that it was asked for."""
    handler = type("Handler", (Server,), {"asked": []})
    server = http.server.ThreadingHTTPServer(("127.0.0.1", port), functools.partial(handler, directory=directory))
    threading.Thread(target=server.serve_forever, daemon=True).start()
    try:
        yield f"http://127.0.0.1:{server.server_address[1]}", handler.asked
    finally:
        server.shutdown()
        server.server_close()


def processes_of(user):
    """Those that run. This is the first process of its namespace: orphans that ended are reaped here."""
    found = []
    for name in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            if os.stat(f"/proc/{name}").st_uid != user:
                continue
            with open(f"/proc/{name}/stat", encoding="utf-8", errors="replace") as file:
                state, parent = file.read().rpartition(")")[2].split()[:2]
            if state == "Z" and int(parent) == os.getpid():
                os.waitpid(int(name), os.WNOHANG)
            else:
                found.append(int(name))
    return found


def await_true(what, condition, seconds=60):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise Failure(f"waited {seconds} s in vain: {what}")
        time.sleep(0.05)
