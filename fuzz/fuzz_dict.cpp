/*
 * Sequences of dictionary operations checked against a std::map model:
 * interning (new texts get the last released id first, else next_id),
 * reference counts, release at zero, and lookups by id and by text. Short
 * texts over a tiny alphabet (NUL included) make repeats, prefixes and
 * releases common; small initial sizes make the entry array and the hash
 * table grow and shrink.
 */
#include "zor_dict.h"

#include <stdint.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "fuzz_check.h"

namespace
{

struct Model {
    std::map<std::string, std::pair<uint32_t, uint32_t>> live; /* text -> (id, refs) */
    std::vector<uint32_t> free_ids;                            /* stack, top at back */
    uint32_t next_id = 0;
};

void check_all(zor_dict *d, const Model &m)
{
    CHECK(d->next_id == m.next_id);
    CHECK(d->table->count == m.live.size());
    CHECK(d->has_free_ids == (m.free_ids.empty() ? 0u : 1u));
    CHECK(d->free_id == (m.free_ids.empty() ? 0xFFFFFFFFu : m.free_ids.back()));
    for (const auto &kv : m.live) {
        zor_dict_rec *rec = zor_dict_id_get_rec(d, kv.second.first);
        CHECK(rec->id == kv.second.first);
        CHECK(rec->refcount == kv.second.second);
        CHECK(rec->len == kv.first.size());
        CHECK(memcmp(rec->text, kv.first.data(), rec->len) == 0 && rec->text[rec->len] == 0);
        zor_str key = zor_str_init_len(kv.first.data(), static_cast<int32_t>(kv.first.size()));
        CHECK(zor_hash_table_find(d->table, &key) == rec);
    }
    for (uint32_t id : m.free_ids)
        CHECK(zor_dict_get_record(d, id) == nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    zor_dict d;
    zor_dict_init(&d, 1 + data[0] % 8, nullptr);
    Model m;
    for (size_t i = 1; i < size;) {
        uint8_t op = data[i++];
        if (op % 3 == 0 || m.live.empty()) {
            std::string text;
            size_t len = op / 3 % 4;
            for (size_t k = 0; k < len && i < size; k++)
                text += "ab\0c"[data[i++] % 4];
            zor_str s = zor_str_init_len(text.data(), static_cast<int32_t>(text.size()));
            uint32_t id = zor_dict_ref_get(&d, s);
            auto it = m.live.find(text);
            if (it != m.live.end()) {
                CHECK(id == it->second.first);
                it->second.second++;
            } else {
                uint32_t expect = m.next_id;
                if (!m.free_ids.empty()) {
                    expect = m.free_ids.back();
                    m.free_ids.pop_back();
                } else {
                    m.next_id++;
                }
                CHECK(id == expect);
                m.live[text] = {id, 1};
            }
        } else {
            auto it = m.live.begin();
            std::advance(it, (op / 3) % m.live.size());
            if (op % 3 == 1) {
                zor_dict_id_add_ref(&d, it->second.first);
                it->second.second++;
            } else {
                zor_dict_id_remove_ref(&d, it->second.first);
                if (--it->second.second == 0) {
                    m.free_ids.push_back(it->second.first);
                    m.live.erase(it);
                }
            }
        }
        check_all(&d, m);
    }
    zor_dict_destroy(&d);
    return 0;
}
