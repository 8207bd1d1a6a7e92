"""Damages of a random server, one field at a time, each named after what is hit.

Each takes the dice and the server and returns False when the server has no such place.
"""
import damages_tables  # noqa: F401 - in this order: a seed means the same server for good
import damages_maps  # noqa: F401
import damages_files  # noqa: F401
from damaging import DAMAGES


def hit(dice, server, count):
    """Applies `count` damages. Returns their names."""
    names = []
    while len(names) < count and server.volumes:
        one = dice.choice(DAMAGES)
        try:
            done = one(dice, server)
        except FileNotFoundError:  # an earlier damage took the file away
            continue
        if done is not False:
            names.append(one.__name__)
    return names
