// check: what in a dictionary directory does not agree, and --repair for what can be fixed without
// losing a registered person.
#include <cstdio>

#include <msmface/gallery.h>
#include <msmface/store.h>

#include "commands/commands.h"

namespace msmcli {

namespace {

// The kind of the directory's patterns as ", seed patterns", or nothing when the directory does
// not open as a gallery (its problems then say why).
std::string kindOf(const std::string& dir, const msmface::LockOptions& lock) {
    msmface::OpenOptions options;
    options.lock = lock;
    const auto g = msmface::Gallery::open(dir, options);
    if (!g.ok()) return {};
    return std::string(", ") + msmface::patternKindName(g->patterns()) + " patterns";
}

}  // namespace

int runCheck(const CheckOptions& o) {
    msmface::LockOptions lock;
    lock.wait = !o.noWait;
    lock.notice = [](const std::string& m) { std::fprintf(stderr, "msmface: %s\n", m.c_str()); };
    const msmface::Result<msmface::StoreReport> r =
        o.repair ? msmface::repairStore(o.dir, lock) : msmface::checkStore(o.dir);
    if (!r.ok()) return fail(r.message());
    for (const std::string& line : r->repaired) std::printf("repaired: %s\n", line.c_str());
    std::printf("%s: %d person%s listed%s; %zu problem%s\n", o.dir.c_str(), r->persons,
                r->persons == 1 ? "" : "s", kindOf(o.dir, lock).c_str(), r->problems.size(),
                r->problems.size() == 1 ? "" : "s");
    for (const msmface::StoreProblem& p : r->problems)
        std::printf("  %s%s\n", p.message.c_str(),
                    p.repairable && !o.repair ? " (check --repair fixes this)" : "");
    return r->problems.empty() ? 0 : kExitFailure;
}

}  // namespace msmcli
