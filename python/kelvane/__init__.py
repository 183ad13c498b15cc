"""Kelvane from Python: giving space back when the daemon asks for it, and asking for space.

    import kelvane
    kelvane.DirectoryService(id="com.example.thumbs", directories=["/var/cache/thumbs"],
                             ages={2: "30d", 3: "7d", 4: "1h"}).run()

DirectoryService is a ready-made service of cache directories; Service one whose purge is written by hand;
Client asks the daemon. Amounts are bytes. Urgencies are 1, only what nobody will miss, to 4, all that can be
made again. Ages are a number and s, m, h, d or w, such as "30d", a number of seconds, or a timedelta.

What cannot be done raises kelvane.Error; an invalid argument raises kelvane.BadRequest, which is a ValueError,
or TypeError.
"""

from ._client import Client, Pass, Purgeable, PurgeResult, version, volume_of
from ._library import BadRequest, ConnectionLost, Error, NoDaemon, Refused
from ._rules import Count, Purged, Rules, count_directory, purge_directory
from ._services import DirectoryService, Request, Service, State

__all__ = ["BadRequest", "Client", "ConnectionLost", "Count", "DirectoryService", "Error", "NoDaemon", "Pass",
           "Purgeable", "Purged", "PurgeResult", "Refused", "Request", "Rules", "Service", "State",
           "count_directory", "purge_directory", "version", "volume_of"]
