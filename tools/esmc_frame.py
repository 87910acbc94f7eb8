"""ESMC frames made by hand: what the system tests and tools/network say in a neighbour's place. Standard library only."""

GROUP = bytes.fromhex("0180c2000002")
SLOW = bytes.fromhex("8809")
SOURCE = bytes.fromhex("020000000099")

PRC, SSU_A, SSU_B, EEC1, DNU = 2, 4, 8, 11, 15


def esmc(quality, event=False, destination=GROUP, source=SOURCE, extension=None, standard=None, length=20):
    """A whole Ethernet frame. `extension` is (clock identity of 8 octets, hop count); `standard`, in the standard's form,
    (enhanced code, clock identity, flags, eEECs, EECs)."""
    body = bytes.fromhex("0a0019a70001") + bytes([0x18 if event else 0x10]) + bytes(3)
    body += bytes([1, 0, 4, quality])
    if extension:
        body += bytes([2, 0, 12]) + extension[0] + bytes([extension[1]])
    if standard:
        enhanced, identity, *chain = standard
        body += bytes([2, 0, length, enhanced]) + identity + bytes(chain)
    return destination + source + SLOW + body.ljust(46, b"\0")
