#!/usr/bin/python3
"""Gives thumbnails back by age. The directories are the arguments."""

import sys

import kelvane

kelvane.DirectoryService(
    id="com.example.thumbs",
    directories=sys.argv[1:],
    ages={2: "30d", 3: "7d", 4: "1h"},
).run()
