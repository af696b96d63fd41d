"""Which shard a document goes to: the hash of its id, as the search servers calculate it."""

MASK = 0xffffffff
MOST_PARTS = 1024  # an index can be split up to here, so ids are spread over that many parts of shards


def rotate(number, bits):
    return (number << bits | number >> (32 - bits)) & MASK


def scramble(number):
    return rotate(number * 0xcc9e2d51 & MASK, 15) * 0x1b873593 & MASK


def murmur(data):
    """The 32-bit MurmurHash3 of some bytes, as a signed number."""
    whole, digest = len(data) & ~3, 0
    for place in range(0, whole, 4):
        digest = rotate(digest ^ scramble(int.from_bytes(data[place:place + 4], "little")), 13)
        digest = (digest * 5 + 0xe6546b64) & MASK
    if whole < len(data):
        digest ^= scramble(int.from_bytes(data[whole:], "little"))
    digest ^= len(data)
    for shift, factor in ((16, 0x85ebca6b), (13, 0xc2b2ae35)):
        digest = (digest ^ digest >> shift) * factor & MASK
    digest ^= digest >> 16
    return digest - (1 << 32) if digest >> 31 else digest


def shard_of(doc_id, shards):
    """The number of the shard that a document goes to."""
    if shards == 1:
        return 0
    parts = shards
    while parts * 2 <= MOST_PARTS:
        parts *= 2
    return murmur(doc_id.encode("utf-16-le", "surrogatepass")) % parts // (parts // shards)
