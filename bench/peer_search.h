// The benchmark peer: the same subtree walk done through the system's OpenLDAP client
// library, behind an interface that shares no type with our headers.
#ifndef WZR_BENCH_PEER_SEARCH_H
#define WZR_BENCH_PEER_SEARCH_H

namespace peer {

struct WalkTotals {
    long entries = 0;
    long attributes = 0;
    long values = 0;
    long bytes = 0;
};

// A bound handle (simple bind), or nullptr.
void *open_bound(const char *uri, const char *dn, const char *password);
// One subtree search of `base` with `filter`, walking every entry's DN, attribute and value.
// False when the search fails.
bool search_walk(void *handle, const char *base, const char *filter, WalkTotals *totals);
// The same walk over a paged search, `page_size` entries a page, following the cookie.
bool paged_walk(void *handle, const char *base, const char *filter, int page_size,
                WalkTotals *totals);
// One search of `base` for `filter` returning the given attributes, sent and collected on
// the handle (which other threads may share). False when it fails.
bool search_small(void *handle, const char *base, const char *filter, char **attrs);
void close(void *handle);

} // namespace peer

#endif
