"""How run() ends, and what happens to a service when its program ends."""

import signal
import textwrap
import unittest

from support import MEBIBYTE, VOLUMES, Case, Program, fill

PREAMBLE = """
import os, signal, sys, threading, time
import kelvane

class Service(kelvane.Service):
    def state_changed(self, state, reason):
        print(state.name, flush=True)
    def purgeable(self, request):
        return 0
    def purge(self, request):
        return 0

def service(kind=Service):
    return kind(id="com.example.python", directories=[sys.argv[1]], daemon_socket=sys.argv[2])
"""


class Run(Case):
    def program(self, text: str) -> Program:
        directory = VOLUMES[0] / "cache"
        if not directory.exists():
            fill(directory)
        return Program(self, "-c", PREAMBLE + textwrap.dedent(text), str(directory), self.daemon.socket)

    def test_returns_on_sigterm(self):
        program = self.program("service().run(); print('returned'); print(signal.getsignal(signal.SIGTERM).name)")
        self.assertTrue(program.hears("REGISTERED"))
        program.signal(signal.SIGTERM)
        self.assertTrue(program.hears("returned"), program.heard)
        self.assertEqual(program.status(), 0)
        self.assertIn("SIG_DFL", program.heard[-1], "the handler of before is back")

    def test_is_ended_by_ctrl_c_with_keyboard_interrupt(self):
        program = self.program("""
            try:
                service().run()
            except KeyboardInterrupt:
                print("interrupted")
            """)
        self.assertTrue(program.hears("REGISTERED"))
        program.signal(signal.SIGINT)
        self.assertTrue(program.hears("interrupted"), program.heard)
        self.assertEqual(program.status(), 0)

    def test_cancels_the_purge_that_runs(self):
        program = self.program("""
            class Slow(Service):
                def purge(self, request):
                    print("purging", flush=True)
                    while not request.cancelled:
                        time.sleep(0.01)
                    print("cancelled", flush=True)
                    return 0

            service(Slow).run()
            """)
        self.assertTrue(program.hears("REGISTERED"))
        client = Program(self, "-c", f"import kelvane; kelvane.Client({self.daemon.socket!r})"
                                     f".purge({str(VOLUMES[0])!r}, {MEBIBYTE}, 1, pass_seconds=300)")
        self.assertTrue(program.hears("purging"), program.heard)
        program.signal(signal.SIGTERM)
        self.assertTrue(program.hears("cancelled"), program.heard)
        self.assertEqual(program.status(), 0)
        self.assertEqual(client.status(), 0, client.heard)

    def test_returns_when_a_handler_stops_the_service(self):
        program = self.program("""
            class Once(Service):
                def purge(self, request):
                    self.stop()
                    return 0

            service(Once).run()
            print("returned")
            """)
        self.assertTrue(program.hears("REGISTERED"))
        self.client.purge(VOLUMES[0], MEBIBYTE, 1)
        self.assertEqual(program.status(), 0)
        self.assertIn("returned\n", program.heard)

    def test_runs_in_another_thread_until_it_is_stopped(self):
        program = self.program("""
            it = service()
            thread = threading.Thread(target=it.run)
            thread.start()
            sys.stdin = open("/dev/null")
            def ends(*_): it.stop()
            signal.signal(signal.SIGUSR1, ends)
            thread.join()
            print("returned")
            """)
        self.assertTrue(program.hears("REGISTERED"))
        program.signal(signal.SIGUSR1)
        self.assertEqual(program.status(), 0)
        self.assertIn("returned\n", program.heard)

    def test_a_program_that_ends_without_stopping_its_service_ends_cleanly(self):
        program = self.program("""
            registered = threading.Event()
            class Noted(Service):
                def state_changed(self, state, reason):
                    if state is kelvane.State.REGISTERED: registered.set()

            service(Noted).start()  # nothing refers to it but the module
            import gc; gc.collect()
            print(registered.wait(20))
            """)
        self.assertEqual(program.status(), 0, program.heard)
        self.assertEqual(program.heard, ["True\n"])

    def test_a_program_that_ends_during_a_purge_waits_for_the_handler(self):
        program = self.program("""
            purging = threading.Event()
            class Slow(Service):
                def purge(self, request):
                    purging.set()
                    while not request.cancelled:
                        time.sleep(0.001)
                    print("cancelled", flush=True)
                    return 0

            it = service(Slow)
            it.start()
            purging.wait()
            """)
        self.assertTrue(program.hears("REGISTERED"))
        self.client.purge(VOLUMES[0], MEBIBYTE, 1, pass_seconds=300)
        self.assertEqual(program.status(), 0, program.heard)
        self.assertEqual(program.heard[-1], "cancelled\n")

    def test_a_forked_child_leaves_the_service_to_its_parent(self):
        program = self.program("""
            it = service()
            it.start()
            child = os.fork()
            if child == 0:
                sys.exit(7)  # runs the exit handlers
            print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
            it.stop()
            """)
        self.assertEqual(program.status(), 0, program.heard)
        self.assertIn("7\n", program.heard)


if __name__ == "__main__":
    unittest.main()
