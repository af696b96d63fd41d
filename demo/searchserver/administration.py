"""The endpoints that make, change and tell indices: mappings, settings, aliases, open and closed."""

from . import jsontext, names
from .errors import illegal_argument, invalid
from .exchange import INDEX_OPTIONS, response, endpoint

BY_NAME = names.Wishes(False, True, ("open",), True)
ANY = names.Wishes(False, True, ("open", "closed"), True)
DONE = {"acknowledged": True}


def bare_mapping(exchange, given):
    """A mapping without the name of a type around it."""
    is_typed = exchange.dialect.typed_mappings or exchange.flag("include_type_name")
    if is_typed and len(given) == 1 and "properties" not in given:
        return next(iter(given.values()))
    return given


@endpoint("include_type_name", "wait_for_active_shards")
def create_index(exchange, name):
    body = exchange.json()
    for key in body:
        if key not in ("settings", "mappings", "aliases"):
            raise illegal_argument(f"unknown key [{key}] for create index")
    index = exchange.cluster.create(name, bare_mapping(exchange, body.get("mappings", {})), body.get("settings"))
    for alias in body.get("aliases", {}):
        exchange.cluster.add_alias(alias, index)
    return response({**DONE, "shards_acknowledged": True, "index": name})


@endpoint(*INDEX_OPTIONS)
def delete_index(exchange, expression):
    for index in exchange.select(expression, ANY):
        exchange.cluster.drop(index)
    return response(DONE)


@endpoint(*INDEX_OPTIONS)
def has_index(exchange, expression):
    exchange.select(expression, BY_NAME)
    return 200, ""


@endpoint(*INDEX_OPTIONS)
def close_index(exchange, expression):
    found = exchange.select(expression, BY_NAME)
    for index in found:
        index.closed = True
    return response({**DONE, "shards_acknowledged": True, "indices": {index.name: {"closed": True} for index in found}})


@endpoint(*INDEX_OPTIONS)
def open_index(exchange, expression):
    for index in exchange.select(expression, ANY):
        index.closed = False
    return response({**DONE, "shards_acknowledged": True})


@endpoint("include_type_name", *INDEX_OPTIONS)
def mappings(exchange, expression="_all"):
    typed = exchange.dialect.typed_mappings if "include_type_name" not in exchange.parameters else (
        exchange.flag("include_type_name"))
    found = {index.name: index.mapping.as_json() for index in exchange.select(expression, BY_NAME)}
    return response({name: {"mappings": {"_doc": mapping} if typed and mapping else mapping}
                   for name, mapping in found.items()})


@endpoint("include_type_name", *INDEX_OPTIONS)
def put_mapping(exchange, expression, kind=None):
    given = bare_mapping(exchange, exchange.json())
    for index in exchange.select(expression, BY_NAME):
        index.mapping.merge(given)
    return response(DONE)


def told_settings(index):
    told = {"creation_date": str(index.created), "uuid": index.uuid, "provided_name": index.name,
            "number_of_shards": "1", "number_of_replicas": "1",
            "version": {"created": f"{int(index.cluster.dialect.number[0]):d}080099"}, **tree(index.settings)}
    if index.closed and index.cluster.dialect.marks_closed:
        told["verified_before_close"] = "true"
    return {"settings": {"index": told}}


def leaves(value, path=""):
    """{dotted path: value} of all that is no object."""
    if not isinstance(value, dict):
        return {path: value}
    return {name: leaf for key, inner in value.items()
            for name, leaf in leaves(inner, f"{path}.{key}" if path else key).items()}


def tree(flat):
    """Objects in objects, of what has dotted paths."""
    told = {}
    for path, value in flat.items():
        place, (*parents, last) = told, path.split(".")
        for parent in parents:
            place = place.setdefault(parent, {})
        place[last] = value
    return told


@endpoint("flat_settings", *INDEX_OPTIONS)
def settings(exchange, expression="_all", wanted="*"):
    test, told = names.any_of(wanted), {}
    for index in exchange.select(expression, BY_NAME):
        found = {name: value for name, value in leaves(told_settings(index)["settings"]).items() if test(name)}
        if found:
            told[index.name] = {"settings": found if exchange.flag("flat_settings") else tree(found)}
    return response(told)


@endpoint(*INDEX_OPTIONS)
def whole_index(exchange, expression):
    cluster = exchange.cluster
    return response({index.name: {
        "aliases": {alias: {} for alias in cluster.aliases_of(index)}, "mappings": index.mapping.as_json(),
        **told_settings(index)} for index in exchange.select(expression, BY_NAME)})


@endpoint()
def change_aliases(exchange):
    cluster = exchange.cluster
    for action in exchange.json().get("actions", []):
        (kind, about), = action.items()
        if kind not in ("add", "remove"):
            raise illegal_argument(f"[aliases] failed to parse field [actions]: unknown field [{kind}]")
        expression = ",".join(about.get("indices") or [about["index"]])
        for index in exchange.select(expression, ANY):
            for alias in about.get("aliases") or [about["alias"]]:
                if kind == "add":
                    cluster.add_alias(alias, index)
                else:
                    remove_alias(cluster, alias, index)
    return response(DONE)


def remove_alias(cluster, alias, index):
    members = [name for name in cluster.aliases.get(alias, ()) if name != index.name]
    if len(members) == len(cluster.aliases.get(alias, ())):
        raise invalid(f"aliases [{alias}] missing")
    cluster.aliases[alias] = members
    if not members:
        del cluster.aliases[alias]


@endpoint()
def put_alias(exchange, expression, alias):
    for index in exchange.select(expression, ANY):
        exchange.cluster.add_alias(alias, index)
    return response(DONE)


@endpoint()
def delete_alias(exchange, expression, alias):
    for index in exchange.select(expression, ANY):
        remove_alias(exchange.cluster, alias, index)
    return response(DONE)


@endpoint(*INDEX_OPTIONS)
def aliases(exchange, expression="_all", pattern=None):
    test = names.any_of(pattern or "*")
    found = {index.name: {"aliases": {alias: {} for alias in exchange.cluster.aliases_of(index) if test(alias)}}
             for index in exchange.select(expression, ANY)}
    if pattern is not None:
        found = {name: told for name, told in found.items() if told["aliases"]}
        missing = [part for part in pattern.split(",") if "*" not in part and part not in exchange.cluster.aliases]
        if missing:
            return 404, jsontext.write({"error": f"alias [{','.join(missing)}] missing", "status": 404, **found})
    return response(found)


@endpoint()
def all_aliases_named(exchange, pattern):
    return aliases(exchange, "_all", pattern)


@endpoint("expand_wildcards")
def streams(exchange, expression="*"):
    test = names.any_of(expression)
    return response({"data_streams": [
        {"name": name, "timestamp_field": {"name": "@timestamp"}, "generation": len(members), "status": "GREEN",
         "indices": [{"index_name": member, "index_uuid": exchange.cluster.indices[member].uuid}
                     for member in members]}
        for name, members in sorted(exchange.cluster.streams.items()) if test(name)]})


@endpoint()
def put_stream(exchange, name):
    template = next((template for template in exchange.cluster.templates.values()
                     if "data_stream" in template and names.any_of(",".join(template["index_patterns"]))(name)), None)
    if template is None:
        raise illegal_argument(f"no matching index template found for data stream [{name}]")
    made = template.get("template", {})
    exchange.cluster.create_stream(name, made.get("mappings"), made.get("settings"))
    return response(DONE)


@endpoint()
def put_template(exchange, name):
    exchange.cluster.templates[name] = exchange.json()
    return response(DONE)
