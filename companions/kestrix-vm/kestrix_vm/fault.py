"""What can go wrong, as a sentence for the user and an exit status."""


class Fault(Exception):
    """The capture failed. The text is a whole sentence."""
    status = 1


class NotBegun(Fault):
    """Nothing was captured: what was asked for can't be done, or not now."""
    status = 3


class Stopped(BaseException):
    """A signal asks for the end. Not an Exception, so that nothing that deals with faults takes it for one."""

    def __init__(self, name):
        super().__init__(name)
        self.name = name
