"""The free list of each group, and the list of groups with free extents."""
from metadata_bytes import *  # noqa: F403 - the names of the format


def _entry(volume, group):
    return volume.entries.get(group, (0, 0, 0, False))


def in_damaged_block(volume, group):
    """A damaged block holds the group's entry or some of its words."""
    first, last = group * GROUP // TABLE_SLOTS, (group * GROUP + GROUP - 1) // TABLE_SLOTS
    return (group // INDEX_SLOTS in volume.bad_index_blocks
            or any(first <= block <= last for block in volume.bad_table_blocks))


def _walk(words, head, free):
    """(code or None, offsets passed) of the list that begins at offset `head`."""
    passed, at = set(), head
    while True:
        if words[at] & USED:
            return 'F02', passed
        if at in passed:
            return 'F03', passed
        passed.add(at)
        if words[at] & TAIL:
            return None, passed
        if len(passed) == len(free):
            return 'F04', passed
        at = words[at] & LOW


def _judge_group(volume, group):
    _, head, count, _ = _entry(volume, group)
    hidden = in_damaged_block(volume, group)
    words = [volume.words.get(group * GROUP + offset, 0) for offset in range(GROUP)]
    free = {offset for offset in range(GROUP) if not words[offset] & USED}
    code, passed = (None, set()) if count == 0 else _walk(words, head, free)
    place = 'group %d' % group
    if code:  # where it ends says nothing about what is on it
        volume.say(code, place, hidden)
        return
    if len(passed) != count:
        volume.say('F05', place, hidden)
    if volume.complete and free - passed:
        volume.say('F06', place, hidden)


def _judge_group_list(volume):
    wanted = {group for group, entry in volume.entries.items() if entry[3] and entry[2] > 0}
    explained = bool(volume.bad_index_blocks)
    cut = False  # the rest of the list cannot be reached
    passed, at = set(), volume.head
    while at <= GROUPS_MAX:
        next_group, _, count, initialised = _entry(volume, at)
        if not initialised:
            break
        if wanted <= passed:
            if passed:
                volume.say('F12', '', explained)
            break
        if at in passed:
            volume.say('F07', '', explained)
            cut = True
            break
        passed.add(at)
        if count == 0:
            volume.say('F08', 'group %d' % at, explained)
        at = next_group
    else:
        volume.say('F08', 'group %d' % at, explained)
        cut = True
    for group in wanted - passed:
        volume.say('F09', 'group %d' % group, explained or cut)


def judge_lists(volume):
    initialised = sorted(group for group, entry in volume.entries.items() if entry[3])
    for group in initialised:
        _judge_group(volume, group)
    if volume.head is not None:
        _judge_group_list(volume)
    used = sum(1 for word in volume.words.values() if word & USED)
    if volume.free is not None and volume.free != EXTENTS_MAX - used:
        volume.say('F10', '', bool(volume.bad_table_blocks))
    if volume.group_count is not None and initialised and volume.group_count <= initialised[-1]:
        volume.say('F11', '', initialised[-1] // INDEX_SLOTS in volume.bad_index_blocks)
