#!/usr/bin/env python3
"""pe_resources.py: checks the resources of a built QBSMTP.dll against the
listing that catalogue_resources wrote from the message catalogue.

    pe_resources.py DLL LISTING

The DLL must hold exactly: the message table (type 11, name 1, language
1040), whose entries are the catalogue's events, each 8-bit (flags 0), with
the catalogue's bytes (CR LF at the end included) and its consecutive ids
in one block each; and the string table (type 6, language 1040) with
exactly the catalogue's Winsock strings. Exits 1 and says what differs
otherwise. Reads the PE file itself, so it needs nothing but Python.
"""
import struct
import sys

RT_STRING = 6
RT_MESSAGETABLE = 11
ITALIAN = 0x410


class BadImage(Exception):
    pass


def read_resources(image):
    """Returns {(type, name, language): bytes} of the image's resources."""
    if image[:2] != b"MZ":
        raise BadImage("no MZ header")
    pe = struct.unpack_from("<I", image, 0x3C)[0]
    if image[pe:pe + 4] != b"PE\0\0":
        raise BadImage("no PE signature")
    machine, sections, _, _, _, optional_size, _ = struct.unpack_from("<HHIIIHH", image, pe + 4)
    if machine != 0x14C:
        raise BadImage("machine 0x%x is not i386" % machine)
    optional = pe + 24
    if struct.unpack_from("<H", image, optional)[0] != 0x10B:
        raise BadImage("not a PE32 image")
    resource_rva, resource_size = struct.unpack_from("<II", image, optional + 96 + 2 * 8)
    if resource_rva == 0:
        return {}
    table = optional + optional_size
    section_list = []
    for i in range(sections):
        _, virtual_size, address, raw_size, raw_pointer = struct.unpack_from(
            "<8sIIII", image, table + 40 * i)
        section_list.append((address, max(virtual_size, raw_size), raw_pointer))

    def offset_of(rva):
        for address, size, raw_pointer in section_list:
            if address <= rva < address + size:
                return raw_pointer + rva - address
        raise BadImage("address 0x%x is in no section" % rva)

    base = offset_of(resource_rva)

    def entries(directory):
        named, numbered = struct.unpack_from("<HH", image, base + directory + 12)
        for i in range(named + numbered):
            name, value = struct.unpack_from("<II", image, base + directory + 16 + 8 * i)
            key = ("named", name & 0x7FFFFFFF) if name & 0x80000000 else name
            yield key, value

    found = {}
    for type_id, type_value in entries(0):
        for name_id, name_value in entries(type_value & 0x7FFFFFFF):
            for language, leaf in entries(name_value & 0x7FFFFFFF):
                data_rva, size, _, _ = struct.unpack_from("<IIII", image, base + leaf)
                start = offset_of(data_rva)
                found[(type_id, name_id, language)] = image[start:start + size]
    return found


def message_table(data):
    """[(low, high, [(flags, text)])] of a message-table resource."""
    count = struct.unpack_from("<I", data, 0)[0]
    blocks = []
    for i in range(count):
        low, high, at = struct.unpack_from("<III", data, 4 + 12 * i)
        texts = []
        for _ in range(low, high + 1):
            length, flags = struct.unpack_from("<HH", data, at)
            if length < 4:
                raise BadImage("message entry of length %d" % length)
            texts.append((flags, data[at + 4:at + length].rstrip(b"\0")))
            at += length
        blocks.append((low, high, texts))
    return blocks


def string_bundle(bundle, data):
    """{number: text} of one string-table bundle (16 counted UTF-16 strings)."""
    strings = {}
    at = 0
    for i in range(16):
        length = struct.unpack_from("<H", data, at)[0]
        at += 2
        if length:
            strings[(bundle - 1) * 16 + i] = data[at:at + 2 * length].decode("utf-16-le")
        at += 2 * length
    return strings


def read_listing(path):
    messages, strings = {}, {}
    with open(path) as listing:
        for line in listing:
            kind, key, text = (line.rstrip("\n").split(" ") + [""])[:3]
            value = bytes.fromhex(text)
            if kind == "message":
                messages[int(key, 16)] = value
            elif kind == "string":
                strings[int(key)] = value.decode("cp1252")
    return messages, strings


def consecutive_runs(ids):
    runs = 0
    previous = None
    for number in sorted(ids):
        if previous is None or number != previous + 1:
            runs += 1
        previous = number
    return runs


def check(resources, messages, strings):
    problems = []
    languages = {key[2] for key in resources if key[0] in (RT_STRING, RT_MESSAGETABLE)}
    if languages - {ITALIAN}:
        problems.append("resources in languages %s besides 1040" % sorted(languages - {ITALIAN}))

    table = resources.get((RT_MESSAGETABLE, 1, ITALIAN))
    if table is None:
        problems.append("no message table (type 11, name 1, language 1040)")
    else:
        blocks = message_table(table)
        found = {}
        for low, _, texts in blocks:
            for offset, (flags, text) in enumerate(texts):
                if flags != 0:
                    problems.append("message 0x%08X is not 8-bit (flags %d)" % (low + offset, flags))
                found[low + offset] = text
        if len(blocks) != consecutive_runs(messages):
            problems.append("%d message blocks, expected %d" %
                            (len(blocks), consecutive_runs(messages)))
        for event_id in sorted(set(messages) | set(found)):
            if event_id not in found:
                problems.append("message 0x%08X missing" % event_id)
            elif event_id not in messages:
                problems.append("message 0x%08X is not in the catalogue" % event_id)
            elif found[event_id] != messages[event_id]:
                problems.append("message 0x%08X is %r, expected %r" %
                                (event_id, found[event_id], messages[event_id]))

    bundles = {key[1]: data for key, data in resources.items()
               if key[0] == RT_STRING and key[2] == ITALIAN}
    if not bundles:
        problems.append("no string table (type 6, language 1040)")
    found_strings = {}
    for bundle, data in bundles.items():
        found_strings.update(string_bundle(bundle, data))
    for number in sorted(set(strings) | set(found_strings)):
        if number not in found_strings:
            problems.append("string %d missing" % number)
        elif number not in strings:
            problems.append("string %d is not in the catalogue" % number)
        elif found_strings[number] != strings[number]:
            problems.append("string %d is %r, expected %r" %
                            (number, found_strings[number], strings[number]))
    return problems, len(bundles)


def main(argv):
    if len(argv) != 3:
        print("usage: pe_resources.py DLL LISTING", file=sys.stderr)
        return 2
    with open(argv[1], "rb") as dll:
        image = dll.read()
    messages, strings = read_listing(argv[2])
    if not messages or not strings:
        print("pe_resources: the listing %s is empty" % argv[2], file=sys.stderr)
        return 1
    try:
        problems, bundles = check(read_resources(image), messages, strings)
    except (BadImage, struct.error, UnicodeDecodeError) as error:
        problems, bundles = ["unreadable resources: %s" % error], 0
    for problem in problems:
        print("pe_resources: %s: %s" % (argv[1], problem), file=sys.stderr)
    if problems:
        return 1
    print("resources: message table 11/1/1040 with %d messages in %d blocks, "
          "string table 6/1040 with %d strings in %d bundles" %
          (len(messages), consecutive_runs(messages), len(strings), bundles))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
