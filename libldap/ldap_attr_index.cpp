// The attribute index of a search entry: one pass over the attribute list with exactly the reads a
// cursor makes, recorded as offsets, and published to every thread reading the entry. A walk
// then takes each type from the index and a lookup by name compares types without decoding.
#include "ldap_attr_index.h"

#include <atomic>

#include "../liblber/ber_int.h"
#include "ldap_entry.h"

namespace {
constexpr uint32_t FIRST_CAPACITY = 16;

size_t element_size(const BerElement *ber) { return static_cast<size_t>(ber->ber_end - ber->ber_buf); }

size_t index_bytes(uint32_t capacity) { return sizeof(LDAPAttrIndex) + (capacity - 1) * sizeof(LDAPAttrSlot); }

// Room for one more slot; false (the index freed) when there is no memory for it.
bool make_room(LDAPAttrIndex **index, uint32_t *capacity)
{
    if ((*index)->count < *capacity)
        return true;
    auto *grown = static_cast<LDAPAttrIndex *>(lber_realloc(*index, index_bytes(2 * *capacity)));
    if (grown == nullptr) {
        lber_free(*index);
        return false;
    }
    *index = grown;
    *capacity *= 2;
    return true;
}

//   PartialAttribute ::= SEQUENCE { type AttributeDescription, vals SET OF value }   ("{sx}")
// Each attribute is read as a cursor reads it: its header, its type (at most 400 bytes), then
// past its value set, until the data ends or the controls begin. An attribute that does not read
// so ends the index without being part of it.
LDAPAttrIndex *build(const BerElement *ber)
{
    BerElement c = ldap_read_cursor(ber);
    if (!ber_is_fber(&c) || element_size(ber) >= UINT32_MAX || !ldap_enter_attribute_list(&c))
        return nullptr;
    uint32_t capacity = FIRST_CAPACITY;
    auto *index = static_cast<LDAPAttrIndex *>(lber_malloc(index_bytes(capacity)));
    if (index == nullptr)
        return nullptr;
    index->buf = ber->ber_buf;
    index->size = element_size(ber);
    index->count = 0;
    index->next = 0;
    ber_len_t len;
    while (c.ber_ptr < c.ber_end && fber_peek_tag(&c, &len) != LDAP_TAG_CONTROLS) {
        unsigned char *at = c.ber_ptr;
        const char *type;
        ber_len_t type_len;
        if (fber_skip_tag(&c, &len) == LBER_ERROR ||
            fber_get_string_view(&c, &type, &type_len) == LBER_ERROR ||
            type_len >= LDAP_ATTR_NAME_BUF || fber_skip_contents(&c) == LBER_ERROR) {
            c.ber_ptr = at;
            break;
        }
        if (!make_room(&index, &capacity))
            return nullptr;
        index->slot[index->count++] = {static_cast<uint32_t>(at - c.ber_buf),
                                       static_cast<uint32_t>(reinterpret_cast<const unsigned char *>(type) - c.ber_buf),
                                       static_cast<uint32_t>(type_len)};
    }
    index->end = static_cast<uint32_t>(c.ber_ptr - c.ber_buf);
    return index;
}
} // namespace

LDAPAttrIndex *ldap_attr_index(LDAPMessage *entry)
{
    const BerElement *ber = entry->lm_ber;
    std::atomic_ref<LDAPAttrIndex *> shared(entry->lm_attr_index);
    LDAPAttrIndex *index = shared.load(std::memory_order_acquire);
    if (index == nullptr) {
        LDAPAttrIndex *built = build(ber);
        if (built == nullptr)
            return nullptr;
        // Threads reading one entry may build at once: the first to publish wins.
        if (shared.compare_exchange_strong(index, built, std::memory_order_acq_rel))
            index = built;
        else
            lber_free(built);
    }
    // An element swapped under the record since would be described wrongly.
    return index->buf == ber->ber_buf && index->size == element_size(ber) ? index : nullptr;
}

int ldap_attr_index_find(LDAPAttrIndex *index, size_t offset)
{
    std::atomic_ref<uint32_t> next(index->next);
    uint32_t k = next.load(std::memory_order_relaxed);
    if (k < index->count && index->slot[k].at == offset) {
        next.store(k + 1, std::memory_order_relaxed);
        return static_cast<int>(k);
    }
    uint32_t lo = 0, hi = index->count;
    while (lo < hi) {
        uint32_t mid = lo + (hi - lo) / 2;
        if (index->slot[mid].at < offset)
            lo = mid + 1;
        else
            hi = mid;
    }
    if (lo == index->count || index->slot[lo].at != offset)
        return -1;
    next.store(lo + 1, std::memory_order_relaxed);
    return static_cast<int>(lo);
}

void ldap_attr_index_free(LDAPMessage *entry)
{
    lber_free(entry->lm_attr_index);
    entry->lm_attr_index = nullptr;
}
