"""Which indices a request means: names, patterns, lists, aliases, data streams."""

import re
from collections import namedtuple

from .errors import illegal_argument, index_closed, index_not_found

# What a request says about names: `missing` ones are an error or left out, patterns may find nothing, patterns find
# the "open", "closed" and "hidden" indices, a name may be that of a closed index.
Wishes = namedtuple("Wishes", "ignore_unavailable allow_no_indices states closed_by_name")
SEARCH = Wishes(False, True, ("open",), False)


def wishes(parameters, default=SEARCH):
    """The Wishes of a URL's parameters."""
    def flag(name, otherwise):
        return parameters[name] in ("", "true") if name in parameters else otherwise

    states = default.states
    if "expand_wildcards" in parameters:
        states = tuple(parameters["expand_wildcards"].split(","))
        for state in states:
            if state not in ("open", "closed", "hidden", "all", "none"):
                raise illegal_argument(f"No valid expand wildcard value [{state}]")
        if "all" in states:
            states = ("open", "closed", "hidden")
    return Wishes(flag("ignore_unavailable", default.ignore_unavailable),
                  flag("allow_no_indices", default.allow_no_indices), states, default.closed_by_name)


def matcher(pattern):
    """The test of a pattern with stars."""
    return re.compile(".*".join(map(re.escape, pattern.split("*"))), re.DOTALL).fullmatch


def any_of(expression):
    """The test of a list of patterns."""
    tests = [matcher(part) for part in expression.split(",")]
    return lambda name: any(test(name) for test in tests)


def groups(cluster):
    """{name: its indices} of all that has a name, an index being a group of its own."""
    found = {name: [index] for name, index in cluster.indices.items()}
    for named in (cluster.aliases, cluster.streams):
        for name, members in named.items():
            found[name] = [cluster.indices[member] for member in members]
    return found


def select(cluster, expression, wanted=SEARCH):
    """The indices that an expression means, by name; SearchError 404 for a missing one, 400 for a closed one."""
    known, found, patterns = groups(cluster), {}, 0
    for name in (expression or "_all").split(","):
        if name == "_all" or "*" in name:
            excludes = name.startswith("-") and patterns
            patterns += 1
            test = matcher("*" if name == "_all" else name[1:] if excludes else name)
            matched = {index.name: index for group, members in known.items() if test(group)
                       for index in members if visible(index, name, group, wanted)}
            if excludes:
                found = {each: index for each, index in found.items() if not test(each)}
            elif not matched and not wanted.allow_no_indices:
                raise index_not_found(name)
            else:
                found.update(matched)
        elif name.startswith("-") and patterns:
            found.pop(name[1:], None)
        elif name not in known:
            if not wanted.ignore_unavailable:
                raise index_not_found(name)
        else:
            found.update((index.name, index) for index in known[name])
    for index in list(found.values()):
        if index.closed and not wanted.closed_by_name:
            if not wanted.ignore_unavailable:
                raise index_closed(index)
            del found[index.name]
    if not found and not wanted.allow_no_indices:
        raise index_not_found(expression or "_all")
    return [found[name] for name in sorted(found)]


def visible(index, pattern, group, wanted):
    """Whether a pattern that fits the name of the index, or of a group with it, means the index."""
    shown = not index.hidden or group != index.name or "hidden" in wanted.states or pattern.startswith(".")
    return shown and ("closed" if index.closed else "open") in wanted.states
