"""Looks into an archive for the node's commands.

usage: archive.py list FILE | read FILE MEMBER | search FILE TEXT

Prints JSON: the names of the members; a member's text; the names of the members that hold the text.
"""

import json
import sys
import tarfile

LONGEST_TEXT = 1 << 20


def main():
    action, path = sys.argv[1], sys.argv[2]
    with tarfile.open(path, "r:gz") as archive:
        members = [member for member in archive if member.isfile()]
        if action == "list":
            result = [member.name for member in members]
        elif action == "read":
            result = archive.extractfile(sys.argv[3]).read(LONGEST_TEXT).decode("utf-8", "replace")
        else:
            wanted = sys.argv[3].encode()
            result = [member.name for member in members if wanted in archive.extractfile(member).read()]
    json.dump(result, sys.stdout)


if __name__ == "__main__":
    main()
