#!/usr/bin/python3
"""Deletes old thumbnails when the daemon needs space. The arguments are their directories."""

import sys

import kelvane

kelvane.DirectoryService(
    id="com.example.thumbs",
    directories=sys.argv[1:],
    ages={2: "30d", 3: "7d", 4: "1h"},
).run()
