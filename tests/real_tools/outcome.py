"""How a scenario ends, other than well."""


class Failure(Exception):
    """Something is not as it must be."""


class NotRun(Exception):
    """The tool cannot be had, or cannot work here; says why."""
