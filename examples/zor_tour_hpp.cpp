/*
 * zor_tour_hpp - a compact configuration validator written against zor.hpp
 * only: the C++ counterpart of the tour and of zorcheck.
 *
 * A configuration holds interfaces (name, mtu) and routes (prefix, via).
 * Each change document is tokenized, applied inside a transaction, and
 * checked by two rules that are update registrations: an interface's mtu
 * must lie in 68..9216, a route's interface must exist. A change that
 * leaves a violation is rolled back, any other is committed. An interface
 * is "present" while its name is set (a tracking registration keeps the
 * flag), and a present interface without an mtu reads 1500. The report is
 * JSON on standard output; the exit status is 0 when every document had
 * the verdict the tour expects.
 */
#include "zor.hpp"

#include <cstdio>
#include <map>
#include <string>
#include <string_view>

namespace
{

struct iface {
    zor_string_id name;
    uint32_t mtu;
};

struct route {
    zor_string_id prefix;
    zor_string_id via;
};

/* Three changes: accepted, rejected (rolled back), accepted. */
const char *const documents[] = {
    R"({"interfaces": [{"name": "eth0", "mtu": 1500}, {"name": "eth1", "mtu": 9000},
                       {"name": "lo"}],
        "routes": [{"prefix": "10.0.0.0/8", "via": "eth0"}]})",
    R"({"interfaces": [{"name": "eth0", "mtu": 20}],
        "routes": [{"prefix": "0.0.0.0/0", "via": "eth9"}]})",
    R"({"routes": [{"prefix": "0.0.0.0/0", "via": "eth1"}], "remove": ["lo"]})",
};
const bool expected_verdicts[] = {true, false, true};

/* The record kinds, their fields and defaults: the schema a store is made of. */
struct config {
    zor::datatypes types;
    zor::schema schema{types};
    zor::kind<iface> iface_kind = schema.add_kind<iface>();
    zor::field<iface, zor_string_id> name = iface_kind.field(&iface::name, types.str());
    zor::field<iface, uint32_t> mtu = iface_kind.field(&iface::mtu, types.uint32());
    zor::flag<iface> present = iface_kind.flag();
    zor::kind<route> route_kind = schema.add_kind<route>();
    zor::field<route, zor_string_id> prefix = route_kind.field(&route::prefix, types.str());
    zor::field<route, zor_string_id> via = route_kind.field(&route::via, types.str());

    config()
    {
        iface_kind.set_default(mtu, uint32_t(1500), present);
    }
};

class validator
{
    config c_;
    zor::store store_{c_.schema};
    std::map<std::string, iface *, std::less<>> by_name_;
    std::map<const void *, std::string> violations_; /* record -> what is wrong */
    uint32_t mtu_changes_ = 0;

    static std::string key(const route &r)
    {
        return std::string(zor::text(r.prefix));
    }

    void check_route(route &r, bool deleting)
    {
        const zor_string_id *via = c_.via.get(r);
        auto it = via != nullptr ? by_name_.find(zor::text(*via)) : by_name_.end();
        if (!deleting && via != nullptr && (it == by_name_.end() || !c_.present.get(*it->second)))
            violations_[&r] = "route " + key(r) + ": no interface " + std::string(zor::text(*via));
        else
            violations_.erase(&r);
    }

  public:
    validator()
    {
        /*
         * The name index follows names as they change, and records as they
         * leave and come back (a rolled-back deletion: its values then read
         * through the snapshot getters).
         */
        store_.on_change(c_.name, [this](iface &r, const zor_string_id *name) {
            if (const zor_string_id *old = c_.name.get_explicit(r))
                by_name_.erase(std::string(zor::text(*old)));
            if (name != nullptr)
                by_name_[std::string(zor::text(*name))] = &r;
        });
        store_.on_delete(c_.iface_kind,
                         [this](iface &r) { by_name_.erase(std::string(zor::text(r.name))); });
        store_.on_create(c_.iface_kind, [this](iface &r) {
            if (const zor_string_id *name = c_.name.snapshot_get(r))
                by_name_[std::string(zor::text(*name))] = &r;
        });
        store_.on_change(c_.mtu, [this](iface &, const uint32_t *) { mtu_changes_++; });
        store_.track(c_.iface_kind, c_.present, {c_.name}).enable();
        store_
            .watch(c_.iface_kind, {c_.mtu},
                   [this](zor::batch<iface> &b) {
                       for (auto u : b) {
                           const uint32_t *mtu = c_.mtu.get(u.rec);
                           if (!u.deleting() && mtu != nullptr && (*mtu < 68 || *mtu > 9216))
                               violations_[&u.rec] = "interface " +
                                                     std::string(zor::text(u.rec.name)) + ": mtu " +
                                                     std::to_string(*mtu);
                           else
                               violations_.erase(&u.rec);
                       }
                       return true;
                   })
            .enable();
        store_
            .watch(c_.route_kind, {c_.via},
                   [this](zor::batch<route> &b) {
                       for (auto u : b)
                           check_route(u.rec, u.deleting());
                       return true;
                   })
            .enable();
        /* A route is checked again when the set of interfaces changes. */
        store_
            .watch(
                c_.iface_kind, {c_.present},
                [this](zor::batch<iface> &) {
                    for (route &r : store_.all(c_.route_kind))
                        check_route(r, false);
                },
                zor::level::one)
            .enable();
        store_.process();
    }

    iface &interface_named(std::string_view name)
    {
        auto it = by_name_.find(name);
        if (it != by_name_.end())
            return *it->second;
        iface &r = *store_.create(c_.iface_kind);
        c_.name.set(r, zor::interned(name).id());
        return r;
    }

    /* Applies one document; false when it is not what the tour reads. */
    bool apply(const zor::tokens &toks)
    {
        if (toks.empty() || !toks[0].is_object())
            return false;
        for (int32_t k = 1; k < static_cast<int32_t>(toks.size()); k = toks[k + 1].skip()) {
            std::string_view section = toks[k].text();
            zor::token list = toks[k + 1];
            for (int32_t e = k + 2; e < list.skip(); e = toks[e].skip()) {
                if (section == "remove") {
                    auto it = by_name_.find(toks[e].text());
                    if (it != by_name_.end())
                        store_.remove(*it->second);
                    continue;
                }
                std::map<std::string_view, std::string_view> m;
                for (int32_t f = e + 1; f < toks[e].skip(); f = toks[f + 1].skip())
                    m[toks[f].text()] = toks[f + 1].text();
                if (section == "interfaces") {
                    iface &r = interface_named(m["name"]);
                    if (m.count("mtu"))
                        c_.mtu.set(r, static_cast<uint32_t>(std::stoul(std::string(m["mtu"]))));
                } else {
                    route &r = *store_.create(c_.route_kind);
                    c_.prefix.set(r, zor::interned(m["prefix"]).id());
                    c_.via.set(r, zor::interned(m["via"]).id());
                }
            }
        }
        return true;
    }

    /* Tokenizes, applies and checks one document in a transaction. */
    bool change(zor::tokenizer &tz, std::string_view doc, zor::json &out)
    {
        if (tz.parse(doc) < 0)
            return false;
        zor::transaction t(store_);
        bool ok = apply(tz.tokens());
        store_.process();
        out.object().pair("accepted", ok && violations_.empty());
        out.array("violations", true);
        for (auto &v : violations_)
            out.value(v.second);
        out.end_array().pair("mtu_changes", mtu_changes_).end_object();
        if (!ok || !violations_.empty())
            return false; /* t restores the state of before the document */
        t.commit();
        return true;
    }

    void state(zor::json &out)
    {
        out.object().array("interfaces", true);
        for (iface &r : store_.all(c_.iface_kind))
            out.object()
                .pair("name", zor::text(r.name))
                .pair("mtu", c_.mtu.get_or(r, 0))
                .pair("present", c_.present.get(r))
                .end_object();
        out.end_array().array("routes", false);
        for (route &r : store_.all(c_.route_kind))
            out.value(key(r) + " via " + std::string(zor::text(*c_.via.get(r))));
        out.end_array().end_object();
    }
};

} // namespace

int main()
{
    validator v;
    zor::tokenizer tz;
    zor::buffer buf;
    zor::json out(buf);
    int status = 0;
    out.array(true);
    for (size_t i = 0; i < sizeof(documents) / sizeof(documents[0]); i++)
        if (v.change(tz, documents[i], out) != expected_verdicts[i])
            status = 1;
    v.state(out);
    out.end_array();
    buf << '\n';
    buf.output(1);
    return status;
}
