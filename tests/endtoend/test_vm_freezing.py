"""kestrix-vm and the guest's agent: freezing, and thawing whatever happens."""
import json
import os
import socket
import threading
import time
import unittest

from guest_disks import BLOCK, DOMAIN, Broken, GuestTest, wait_until, why_no_guests
from harness import MIB


class Agent:
    """A guest's agent that does as it is told: `ways` by command, what it answers instead ("silent", "refuses", or a
    function that is called before the answer)."""

    def __init__(self, path, ways=None):
        self.ways, self.said, self.frozen = ways or {}, [], False
        self.times = {}
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen()
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.listener.close()

    def serve(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            with connection:
                for line in connection.makefile("rb"):
                    try:
                        connection.sendall(self.answer(json.loads(line.lstrip(b"\xff"))))
                    except OSError:
                        break

    def answer(self, request):
        command = request["execute"]
        self.said.append(command)
        self.times[command] = time.monotonic()
        way = self.ways.get(command)
        if way == "silent":
            return b""
        if way == "refuses":
            return b'{"error": {"class": "GenericError", "desc": "not today"}}\n'
        if way:
            way()
        told = {}
        if command == "guest-sync-delimited":
            return b"\xff" + json.dumps({"return": request["arguments"]["id"]}).encode() + b"\n"
        if command == "guest-fsfreeze-freeze":
            self.frozen, told = True, 2
        if command == "guest-fsfreeze-thaw":
            self.frozen, told = False, 2
        return json.dumps({"return": told}).encode() + b"\n"


@unittest.skipIf(why_no_guests(), why_no_guests())
class Freezing(GuestTest):
    def setUp(self):
        super().setUp()
        self.path_of_agent = os.path.join(self.folder, "agent")
        self.more = ["--agent", self.path_of_agent]
        self.write(0, b"x" * MIB)

    def agent(self, **ways):
        agent = Agent(self.path_of_agent, {"guest-fsfreeze-" + name: way for name, way in ways.items()})
        self.addCleanup(agent.close)
        return agent

    def test_the_moment_lies_between_freeze_and_thaw(self):
        agent = self.agent()
        seen = []
        agent.ways["guest-fsfreeze-thaw"] = lambda: seen.append(
            (agent.frozen, any(name.startswith("scratch") for _, _, names in os.walk(self.state) for name in names)))
        text = self.captured("a")
        self.assertRegex(text, r"File systems frozen: 2, for 0\.\d\d s\.")
        self.assertEqual(seen, [(True, True)])
        self.assertEqual(agent.said, ["guest-sync-delimited", "guest-fsfreeze-freeze", "guest-fsfreeze-thaw"])
        self.assertFalse(agent.frozen)
        # Nothing that can wait is done while the guest stands still.
        self.assertLess(agent.times["guest-fsfreeze-thaw"] - agent.times["guest-fsfreeze-freeze"], 1)

    def test_what_the_guest_writes_as_it_freezes_is_in_the_image_and_what_it_writes_thawed_is_not(self):
        moment = []
        self.agent(freeze=lambda: self.write(9 * MIB, b"brought into order"),
                   thaw=lambda: (moment.append(bytes(self.content)), self.write(13 * MIB, b"goes on")))
        run = self.capture("a")
        self.assertEqual((run.status, run.err), (0, b""))
        self.check_holds("a", moment[0])
        self.touched = {13 * MIB // BLOCK}
        self.captured("b", "a")

    def test_without_an_agent_it_says_so(self):
        self.assertIn("Not frozen: no guest agent answers at", self.captured("a"))
        self.more = []
        self.assertIn("Not frozen: no guest agent was named. The image is what a power cut would leave.",
                      self.captured("b"))
        agent = self.agent()
        self.more = ["--agent", self.path_of_agent, "--no-freeze"]
        self.assertIn("Not frozen: as told.", self.captured("c"))
        self.assertEqual(agent.said, [])

    def test_an_agent_that_refuses_is_thawed_all_the_same(self):
        agent = self.agent(freeze="refuses")
        self.assertIn("refused guest-fsfreeze-freeze (not today)", self.captured("a"))
        self.assertEqual(agent.said[-1], "guest-fsfreeze-thaw")

    def test_an_agent_that_does_not_answer_in_time_is_thawed_all_the_same(self):
        agent = self.agent(freeze=lambda: time.sleep(2))
        self.more += ["--freeze-patience", "0.5"]
        self.assertIn("the guest agent failed at guest-fsfreeze-freeze (timed out)", self.captured("a"))
        self.assertFalse(agent.frozen)
        self.assertEqual(agent.said[-1], "guest-fsfreeze-thaw")

    def test_a_guest_is_frozen_no_longer_than_the_bound(self):
        agent = self.agent()
        self.more += ["--freeze-bound", "0.5"]
        with self.held_transaction():
            text = self.captured_by_door("a")
        self.assertIn("Not frozen: it was thawed after 0.5 seconds, before the view was taken.", text)
        self.assertLess(agent.times["guest-fsfreeze-thaw"] - agent.times["guest-fsfreeze-freeze"], 1)

    def held_transaction(self):
        """Inside of the with QEMU's answer to the command that takes the moment comes late."""
        test = self

        class Held(Broken):
            def is_here(self):
                return self.commands[-1] == "transaction" and "blockdev-create" in self.commands and \
                    self.commands.count("transaction") == 2

            def breaks(self, client, server, line):
                time.sleep(1.5)
                return True

            def __enter__(self):
                test.door = self.path
                return self

            def __exit__(self, *_):
                self.close()

        # The first is that of the mark at the disk's end.
        return Held(os.path.join(self.folder, "door"), self.qmp, way="passed")

    def captured_by_door(self, name):
        real, self.qmp = self.qmp, self.door
        try:
            run = self.capture(name)
        finally:
            self.qmp = real
        self.assertEqual(run.status, 0, run.err)
        return run.out.decode()

    def test_a_run_that_is_killed_while_the_guest_is_frozen_leaves_it_thawed(self):
        frozen = threading.Event()
        agent = self.agent(freeze=lambda: (frozen.set(), time.sleep(0.5)))
        process = self.start_vm("capture", DOMAIN, "vda", "--out", "a", *self.more)
        self.assertTrue(frozen.wait(20))
        process.kill()
        process.wait()
        wait_until(lambda: agent.said[-1] == "guest-fsfreeze-thaw" and not agent.frozen)
        self.more = []
        wait_until(lambda: self.capture("b").status == 0)
        self.check_nothing_left()
