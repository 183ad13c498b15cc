"""How a scenario fails."""


class Failure(Exception):
    """A check has failed."""


class NotRun(Exception):
    """The tool cannot be installed or cannot run here, with the reason."""
