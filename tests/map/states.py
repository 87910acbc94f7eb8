"""Recorded states of made-up networks, as `esmcmap --watch --json` writes them, for `esmcmap --replay`."""

import json
import math


def port(name, peer=None, source=False, received="prc", sent="prc", reason=None):
    return {"name": name, "address": f"02:00:00:00:00:{int(name[1:]):02x}", "neighbour": None, "link_up": True, "received": received,
            "sent": sent, "source": source, "reason": reason, "peer": peer, "peer_port": None}


def node(name, follows=None, **more):
    known = {"id": name, "kind": "switch", "answer": "ok", "answered": None, "error": None, "state": "lock" if follows else "master",
             "dpll": "lock", "quality": "prc", "clock_id": f"id-{name}", "source": "p1" if follows else None, "follows": follows,
             "root": None, "hops": None, "reason": None, "loop": False, "island": False, "claim": False, "x": 0.0, "y": 0.0, "ports": []}
    return known | more


def link(a, a_port, b, b_port, clock=None, quality="prc", **more):
    return {"id": f"{a} {a_port} ~ {b} {b_port}", "a": a, "a_port": a_port, "b": b, "b_port": b_port, "up": True, "clock": clock,
            "quality": quality, "loop": False} | more


def state(t, seq, nodes, links, **more):
    return {"t": t, "seq": seq, "interval_ms": 1000, "nodes": nodes, "links": links, "loops": [], "islands": [], "claims": [],
            "problems": []} | more


def placed(nodes, radius=None):
    """On a circle, the first on top."""
    radius = radius or max(110, 105 * len(nodes) / (2 * math.pi))
    for i, one in enumerate(nodes):
        angle = 2 * math.pi * i / len(nodes)
        one.update(x=round(radius * math.sin(angle), 1), y=round(-radius * math.cos(angle), 1))
    return nodes


def ring(names, t, seq):
    """All follow the first, each the shorter way round: p1 towards it, p2 away from it."""
    size, nodes, links = len(names), [node(names[0], root=names[0], hops=0)], []
    nodes[0]["ports"] = [port("p1", names[1], sent="prc"), port("p2", names[-1])]
    for i, name in enumerate(names[1:], 1):
        hops = min(i, size - i)
        up, down = (names[i - 1], names[(i + 1) % size]) if i <= size / 2 else (names[(i + 1) % size], names[i - 1])
        nodes.append(node(name, up, root=names[0], hops=hops, ports=[port("p1", up, True, sent="dnu"), port("p2", down, reason="quality: worse than p1")]))
    for i, name in enumerate(names):
        after = (i + 1) % size
        follows = {(nodes[after]["follows"], names[after]): "ab", (nodes[i]["follows"], name): "ba"}
        clock = follows.get((name, names[after])) or follows.get((names[after], name))
        a_port = "p2" if 0 < i <= size / 2 else "p1"
        b_port = "p1" if 0 < after <= size / 2 else "p2"
        if clock == "ba" and 0 < i:
            a_port = "p1"
        links.append(link(name, a_port if i else "p1", names[after], b_port, clock))
    return state(t, seq, placed(nodes), links)


def write(path, states):
    path.write_text("".join(json.dumps(one) + "\n" for one in states))
    return path
