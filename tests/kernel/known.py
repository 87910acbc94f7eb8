"""Faults that are known and not mended: test -> what is wrong. Each of these tests must fail."""

KNOWN = {}
