"""A rule that kestrix-keep has to keep, whatever happens."""


class Rule(AssertionError):
    """It is broken."""


def demand(condition, text):
    if not condition:
        raise Rule(text)
