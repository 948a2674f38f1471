"""The conversation with QEMU, or its storage daemon, over a QMP socket."""
import json
import socket
import time

from .fault import Fault, NotBegun

GREETING_PATIENCE = 5  # seconds; a monitor that has a client greets no other before that one has left
LONGEST_MESSAGE = 256 * 1024 * 1024


class Refused(Fault):
    """QEMU answered a command with an error."""


class Broken(Fault):
    """The conversation has come to its end: QEMU is gone, hangs, or says what is no QMP."""


class Conversation:
    """One client of a monitor. `patience` is how many seconds a command may take to be answered."""

    def __init__(self, path, patience):
        self.path, self.patience = path, patience
        self.text = ""
        self.count = 0
        self.events = []  # those that came and that nobody has taken yet
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.broken = False
        try:
            self.socket.settimeout(GREETING_PATIENCE)
            self.socket.connect(path)
            greeting = self.receive(time.monotonic() + min(GREETING_PATIENCE, patience))
            if "QMP" not in greeting:
                raise Broken(f"What answers at {path} is no QMP monitor.")
            self.execute("qmp_capabilities")
            self.commands = {command["name"] for command in self.execute("query-commands")}
        except (OSError, ValueError) as error:
            self.close()
            raise NotBegun(f"There is no way to QEMU at {path}: {error}.") from None
        except Broken as error:
            self.close()
            raise NotBegun(f"{error} A monitor serves one client at a time: it may have another.") from None
        except BaseException:
            self.close()
            raise

    def close(self):
        self.broken = True
        self.socket.close()

    def fileno(self):
        return self.socket.fileno()

    def execute(self, command, **arguments):
        """What QEMU returns. Underscores in the names of arguments stand for dashes."""
        arguments = {name.replace("_", "-"): value for name, value in arguments.items() if value is not None}
        return self.execute_with(command, arguments)

    def execute_with(self, command, arguments):
        if self.broken:
            raise Broken("The conversation with QEMU has ended.")
        self.count += 1
        request = {"execute": command, "id": self.count}
        if arguments:
            request["arguments"] = arguments
        end = time.monotonic() + self.patience
        try:
            self.socket.settimeout(self.patience)
            self.socket.sendall(json.dumps(request).encode() + b"\n")
            while True:
                message = self.receive(end)
                if "event" in message:
                    self.events.append(message)
                elif message.get("id") == self.count and "return" in message:
                    return message["return"]
                elif message.get("id") == self.count and isinstance(message.get("error"), dict):
                    raise Refused(f"QEMU refused {command}: {message['error'].get('desc', 'it tells no reason')}.")
                else:
                    raise Broken(f"QEMU answered {command} with what belongs to no command of ours.")
        except Refused:
            raise
        except OSError as error:
            self.close()
            raise Broken(f"The conversation with QEMU ended at {command}: {error}.") from None
        except BaseException as error:
            # Where the answer was not awaited, it would be taken for that of the next command.
            self.close()
            if isinstance(error, Broken):
                raise Broken(f"{str(error)[:-1]}, at {command}.") from None
            raise

    def take_events(self):
        """The events that came since the last time, without waiting for any."""
        if not self.broken:
            try:
                self.socket.settimeout(0)
                while True:
                    self.events.append(self.receive(None))
            except BlockingIOError:
                pass
            except OSError as error:
                self.close()
                raise Broken(f"The conversation with QEMU ended: {error}.") from None
            except Broken:
                self.close()
                raise
        events, self.events = self.events, []
        return events

    def receive(self, end):
        """The next message, which must have come by that moment; None takes the socket's own time-out."""
        while True:
            message = self.parse()
            if message is not None:
                return message
            if end is not None:
                left = end - time.monotonic()
                if left <= 0:
                    raise Broken("QEMU does not answer.")
                self.socket.settimeout(left)
            try:
                part = self.socket.recv(1 << 20)
            except TimeoutError:
                raise Broken("QEMU does not answer.") from None
            if not part:
                raise Broken("QEMU has ended the conversation.")
            self.text += part.decode("utf-8", "replace")
            if len(self.text) > LONGEST_MESSAGE:
                raise Broken("QEMU says more than any answer takes.")

    def parse(self):
        """The first whole message of what has been received, if there is one; a monitor may spread it over lines."""
        self.text = self.text.lstrip()
        if not self.text:
            return None
        if self.text[0] != "{":
            raise Broken("QEMU says what is no QMP.")
        try:
            message, end = json.JSONDecoder().raw_decode(self.text)
        except json.JSONDecodeError:
            return None  # the rest is under way, or never comes, which takes the whole patience
        except RecursionError:
            raise Broken("QEMU says what is no QMP.") from None
        self.text = self.text[end:]
        return message
