#include "platform/fsevents/PolledRegion.h"
namespace platform::fsevents {
struct PolledFolder {}; class FolderListing {}; class PolledChanges {};
PolledRegion::PolledRegion(std::chrono::nanoseconds t, bool f) : timeStep_(t), foreign_(f), interval_(0) {(void)foreign_;(void)pass_;(void)triesMarks_;(void)marked_;(void)phase_;}
PolledRegion::~PolledRegion() = default;
bool PolledRegion::add(NodeId f, int, Why) { folders_[f] = nullptr; return true; }
void PolledRegion::remove(NodeId f) { folders_.erase(f); }
void PolledRegion::tellAllRemoved(NodeId, Host&) {}
void PolledRegion::moved(NodeId, std::string_view) {}
void PolledRegion::told(NodeId, int, std::string_view, FSEventStreamEventFlags) {}
std::chrono::milliseconds PolledRegion::interval() const { return std::chrono::milliseconds(1000); }
std::optional<PolledRegion::Clock::time_point> PolledRegion::due() const { return std::nullopt; }
std::optional<PolledRegion::Clock::time_point> PolledRegion::work(Host&, Clock::duration) { return std::nullopt; }
void PolledRegion::hurry() {}
bool PolledRegion::isHurried() const { return false; }
}
