#!/usr/bin/env python3
"""Writes the largest configuration the service admits, in the writer's shape:
128 targets with CHAP, 1024 LUNs, 256 initiator groups and 8192 initiators
(24 in each group, 16 named directly on each target).

An optional second argument gives the number of targets (1 to 128); LUNs and
initiator groups scale with it, two groups and eight LUNs per target, so every
limit still holds: a configuration one target short of the limit is the one
target editing works on at its largest.

An optional third argument gives the number of LUNs (at most eight per
target); the missing ones are the highest of the last targets, so 128 targets
with 1023 LUNs leave the last target one LUN short: the configuration that
LUN creation works on at its largest."""
import base64
import sys
import uuid

MAX_TARGETS, LUNS_PER_TARGET, GROUPS_PER_TARGET = 128, 8, 2
MEMBERS_PER_GROUP, DIRECT_PER_TARGET = 24, 16


def ident(kind, n):
    return str(uuid.uuid5(uuid.NAMESPACE_OID, f"zel-bench-{kind}-{n}"))


def main(path, targets=MAX_TARGETS, luns=None):
    if not 1 <= targets <= MAX_TARGETS:
        sys.exit(f"the target count must be 1 to {MAX_TARGETS}, not {targets}")
    most = LUNS_PER_TARGET * targets
    luns = most if luns is None else luns
    if not 0 <= luns <= most:
        sys.exit(f"the LUN count must be 0 to {most} for {targets} targets, not {luns}")
    out = ["generation 1"]
    for g in range(GROUPS_PER_TARGET * targets):
        out.append(f"initiator-group group-{g:03d} {{")
        for m in range(MEMBERS_PER_GROUP):
            out.append(f"\t initiator iqn.2024-01.org.example:g{g:03d}-h{m:02d} ")
        out.append("}")
    out += ["auth-group default {", "\t auth-type none", "}"]
    for t in range(targets):
        secret = base64.b64encode(f"Secret#{t:05d}ab".encode()).decode()
        out.append(f"auth-group {ident('target', t)} {{")
        out.append(f'\t chap "user{t:03d}" "{secret}" ')
        for g in (2 * t, 2 * t + 1):
            out.append(f"\t initiator-group group-{g:03d}")
        for d in range(DIRECT_PER_TARGET):
            out.append(f"\t initiator-name iqn.2024-01.org.example:t{t:03d}-d{d:02d}")
        out.append("}")
    out += ["portal-group default {", "\t discovery-auth-group default",
            "\t listen nok0:3260", "}"]
    for t in range(targets):
        u = ident("target", t)
        out += [f"target iqn.2026-11.local.zel:target-{t:03d} {{",
                f'\talias "target-{t:03d}"', "\tportal-group default",
                f"\tauth-group {u}", f"\toption uuid {u}"]
        for n in range(min(LUNS_PER_TARGET, luns - t * LUNS_PER_TARGET)):
            out += [f"\tlun {n} {{", "\t\tbackend block",
                    f"\t\tpath {u}/{ident('lun', t * LUNS_PER_TARGET + n)}.qdsk",
                    "\t\tsize 2097152", f'\t\toption lun-alias "lun-{n}"', "\t}"]
        out.append("}")
    with open(path, "w") as f:
        f.write("\n".join(out) + "\n")


if __name__ == "__main__":
    main(sys.argv[1], *(int(n) for n in sys.argv[2:4]))
