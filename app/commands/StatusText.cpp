#include "app/commands/StatusText.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <string_view>
#include <vector>

#include "app/cli/TimeText.h"
#include "app/client/WatchedFolder.h"
#include "platform/foundation/text/UTF8.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine {

namespace {

using platform::Object;

/// A number, a text or a list of texts on one line.
std::string plainText(const Object& value) {
  if (!value.isArray()) return value.description();
  std::string text;
  for (const Object& element : value.arrayValue()) text += (text.empty() ? "" : ", ") + element.description();
  return text;
}

class Lines {
 public:
  void add(std::string_view label, const std::string& value) { fmt::format_to(std::back_inserter(text_), "{:<18}{}\n", label, value); }
  void addWhereSet(std::string_view label, const Object& value) {
    const bool isEmpty = value.isNil() || (value.isArray() && value.count() == 0) || (value.isString() && value.stringValue().empty());
    if (!isEmpty) add(label, plainText(value));
  }
  std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

/// The dictionaries of a list; what is none is left out.
platform::Array dictionariesOf(const Object& list) {
  platform::Array found;
  if (!list.isArray()) return found;
  std::ranges::copy_if(list.arrayValue(), std::back_inserter(found), &Object::isDictionary);
  return found;
}

std::string textOf(const Object& dictionary, std::string_view key) { return dictionary.objectForKey(key).description(); }

bool lasts(const Object& loss) {
  const Object lasting = loss.objectForKey("lasting");
  return lasting.isNumber() && lasting.boolValue();
}

/// What is lost for one reason.
struct LostPlaces {
  std::string reason;
  std::vector<std::string> paths;
};

void addLosses(Lines& lines, const Object& stream) {
  constexpr std::size_t kNamed = 8;
  std::vector<LostPlaces> now;
  const platform::Array losses = dictionariesOf(stream.objectForKey("losses"));
  for (const Object& loss : losses) {
    const std::string remedy = loss.objectForKey("remedy").isString() ? textOf(loss, "remedy") : std::string();
    const std::string reason = textOf(loss, "reason") + (remedy.empty() ? "" : "; " + remedy);
    if (!lasts(loss)) {
      lines.add("  losses", fmt::format("{} times: {} ('{}')", textOf(loss, "count"), reason, textOf(loss, "path")));
      continue;
    }
    auto known = std::ranges::find(now, reason, &LostPlaces::reason);
    if (known == now.end()) known = now.insert(now.end(), LostPlaces{reason, {}});
    known->paths.push_back("'" + textOf(loss, "path") + "'");
  }
  if (losses.empty()) lines.add("  losses", "none");
  for (LostPlaces& places : now) {
    const std::size_t more = places.paths.size() - std::min(places.paths.size(), kNamed);
    places.paths.resize(places.paths.size() - more);
    lines.add("  lost now",
              fmt::format("{}{}: {}", fmt::join(places.paths, ", "), more > 0 ? fmt::format(" and {} more", more) : "", places.reason));
  }
  const Object notShown = stream.objectForKey("lossesNotShown");
  if (notShown.isNumber()) lines.add("  lost now", fmt::format("{} more places", notShown.description()));
}

void addRegions(Lines& lines, const Object& stream) {
  for (const Object& region : dictionariesOf(stream.objectForKey("regions"))) {
    const Object interval = region.objectForKey("interval");
    lines.add("  polled", fmt::format("'{}': {} folders every {:.1f} s: {}", textOf(region, "path"), textOf(region, "folders"),
                                      interval.isNumber() ? interval.doubleValue() : 0.0, textOf(region, "reason")));
  }
}

void addStream(Lines& lines, const Object& stream) {
  lines.addWhereSet("  source", stream.objectForKey("source"));
  const platform::Array trees = dictionariesOf(stream.objectForKey("trees"));
  if (trees.size() > 1) {
    for (const Object& tree : trees) lines.add("  served", fmt::format("'{}' by {}", textOf(tree, "path"), textOf(tree, "source")));
  }
  lines.addWhereSet("  folders marked", stream.objectForKey("foldersMarked"));
  addRegions(lines, stream);
  lines.addWhereSet("  polled above", stream.objectForKey("polled"));
  lines.add("  events", fmt::format("{} in {} deliveries", stream.objectForKey("eventsDelivered").longLongValue(),
                                    stream.objectForKey("deliveries").longLongValue()));
  addLosses(lines, stream);
  lines.addWhereSet("  error", stream.objectForKey("error"));
}

bool watches(const Object& stream, const std::string& folder) {
  const Object paths = stream.objectForKey("paths");
  return paths.isArray() && std::ranges::any_of(paths.arrayValue(), [&](const Object& path) { return path == Object(folder); });
}

void addWatches(Lines& lines, const ServiceReport& report) {
  if (report.watches.empty()) lines.add("watches", "none; 'kestrine start' asks for one");
  platform::Array streams = report.streams;
  for (const WatchReport& watch : report.watches) {
    const std::string reason = watch.reason.empty() ? std::string() : ": " + watch.reason;
    lines.add(fmt::format("watch {}", watch.number), fmt::format("{}, '{}'{}", watch.state, watch.folder, reason));
    // Two watches of one folder have a stream each.
    const auto stream = std::ranges::find_if(streams, [&](const Object& candidate) { return watches(candidate, watch.folder); });
    if (watch.is(WatchState::Failed) || stream == streams.end()) continue;
    addStream(lines, *stream);
    streams.erase(stream);
  }
}

/// The same in what JSON has: dates as text, and text that is not UTF-8 (a path may be any bytes) as {"hex": two digits a byte}.
Object withJsonKinds(const Object& value) {
  if (value.kind() == Object::Kind::Date) return universalTimeText(value.dateValue());
  if (value.isString() && !platform::isUTF8(value.stringValue())) {
    std::string digits;
    for (const char c : value.stringValue()) fmt::format_to(std::back_inserter(digits), "{:02x}", static_cast<unsigned char>(c));
    return platform::Dictionary{{"hex", digits}};
  }
  if (value.isArray()) {
    platform::Array array;
    for (const Object& element : value.arrayValue()) array.push_back(withJsonKinds(element));
    return array;
  }
  if (!value.isDictionary()) return value;
  platform::Dictionary dictionary;
  for (const auto& [key, element] : value.dictionaryValue()) dictionary.emplace(key, withJsonKinds(element));
  return dictionary;
}

std::string flagText(const ServiceStatus& status) {
  if (status.flag.raised) return "raised";
  if (!status.report || !status.report->owedFlag) return "not raised";
  const OwedFlagReport& owed = *status.report->owedFlag;
  return fmt::format("cannot be raised, since {}, because {}; the service goes on trying", localTimeText(owed.since), owed.reason);
}

std::string baseLine(const ServiceStatus& status) {
  if (!status.base) return "not set; 'kestrine start --base DIR' sets it";
  const WatchedFolder folder = watchedFolder(*status.base);
  return folder.problem.empty() ? "'" + folder.base + "'" : folder.problem;
}

Object orNull(const Object& value) { return value.isNil() ? Object::null() : value; }

}  // namespace

std::string statusText(const ServiceStatus& status) {
  Lines lines;
  if (status.process == 0) {
    lines.add("service", "not running; 'kestrine start' starts it");
  } else if (!status.report) {
    lines.add("service", status.process > 0 ? fmt::format("running, process {}, but it does not answer", status.process)
                                            : std::string("running, but it does not answer"));
  } else {
    std::string text = fmt::format("running, process {}", status.process);
    if (const auto& since = status.report->startedAt) {
      const double age = platform::Date::now().timeIntervalSince1970 - since->timeIntervalSince1970;
      fmt::format_to(std::back_inserter(text), ", since {} ({})", localTimeText(*since), durationText(age));
    }
    lines.add("service", text);
    addWatches(lines, *status.report);
  }
  lines.add("flag", flagText(status));
  lines.add("base", baseLine(status));
  return lines.take();
}

Object statusObject(const ServiceStatus& status) {
  platform::Dictionary object;
  if (status.report) object = withJsonKinds(status.report->all).dictionaryValue();
  object["running"] = Object::numberWithBool(status.process != 0);
  object["answers"] = Object::numberWithBool(status.report.has_value());
  if (status.process > 0) object["pid"] = Object::numberWithLongLong(status.process);
  if (status.report && status.report->startedAt) object["startedAt"] = universalTimeText(*status.report->startedAt);
  object["flag"] = orNull(withJsonKinds(status.flag.value));
  object["flagRaised"] = Object::numberWithBool(status.flag.raised);
  object["base"] = status.base ? withJsonKinds(*status.base) : Object::null();
  const std::string folder = status.base ? watchedFolder(*status.base).base : std::string();
  object["baseFolder"] = folder.empty() ? Object::null() : withJsonKinds(folder);
  return object;
}

}  // namespace kestrine
