"""The defects that tests/defects/run puts in, one at a time. Each is what a tired day could do to the code.

`old` must stand in `file` exactly once; `tests` is the test program and `filter` the GoogleTest filter of the tests that must fail.
"""
import dataclasses


@dataclasses.dataclass(frozen=True)
class Defect:
    name: str
    file: str
    old: str
    new: str
    tests: str
    filter: str


DEFECTS = [
    # The product.
    Defect(
        "wrong-preference-key",
        "src/contract/SharedPreferences.h",
        'kBasePathKey = "kestrinePathKey"',
        'kBasePathKey = "KestrinePathKey"',
        "watcher_tests",
        "FileWatcherServiceXPCTest.*",
    ),
    Defect(
        "flag-not-synchronised",
        "src/watcher/FileWatcherServiceXPC.cpp",
        "  defaults.synchronize();\n",
        "",
        "watcher_tests",
        "RaiseFileWatcherStatus.*",
    ),
    Defect(
        "flag-raised-once-only",
        "src/watcher/FileWatcherServiceXPC.cpp",
        '  defaults.setObject_forKey(kFlagRaised, kFlagKey);\n',
        '  static const bool once = (defaults.setObject_forKey(kFlagRaised, kFlagKey), true);\n  static_cast<void>(once);\n',
        "watcher_tests",
        "RaiseFileWatcherStatus.*",
    ),
    Defect(
        "second-stream-when-run-twice",
        "src/watcher/FileWatcherServiceXPC.cpp",
        "  if (events_) return;\n",
        "",
        "watcher_tests",
        "FileWatcherServiceXPCTest.MakesOneStreamWhenRunTwice",
    ),
    Defect(
        "wrong-predicate-bit",
        "src/watcher/CDEventFlags.h",
        '{"isXattrModified", platform::kFSEventStreamEventFlagItemXattrMod}',
        '{"isXattrModified", platform::kFSEventStreamEventFlagItemChangeOwner}',
        "watcher_tests",
        "CDEvent.*",
    ),
    Defect(
        "identifier-printed-unsigned",
        "src/watcher/CDEvent.cpp",
        "static_cast<std::int64_t>(identifier_), describe(URL_)",
        "identifier_, describe(URL_)",
        "watcher_tests",
        "CDEvent.*",
    ),
    Defect(
        "archived-date-forgotten",
        "src/watcher/CDEvent.cpp",
        '  if (date_) archive["date"] = *date_;\n',
        "",
        "watcher_tests",
        "CDEvent.*",
    ),
    Defect(
        "delegate-looked-up-once",
        "src/watcher/CDEvents.cpp",
        "  if (const std::shared_ptr<CDEventsDelegate> delegate = URLWatcher.delegate()) delegate->",
        "  static const std::weak_ptr<CDEventsDelegate> first = URLWatcher.delegate();\n"
        "  if (const std::shared_ptr<CDEventsDelegate> delegate = first.lock()) delegate->",
        "watcher_tests",
        "CDEventsDelegateForm.LooksTheDelegateUpForEachEvent:CDEventsDelegateForm.DeliversToNobodyOnceTheDelegateIsCleared",
    ),
    Defect(
        "excluded-by-component",
        "src/watcher/CDEventsFilter.cpp",
        "return eventPath.starts_with(excluded); });",
        'return eventPath == excluded || eventPath.starts_with(excluded + "/"); });',
        "watcher_tests",
        "CDEventsFilter.*",
    ),
    Defect(
        "exclusions-in-watched-folders-only-mode",
        "src/watcher/CDEventsFilter.cpp",
        "  if (watchedFoldersOnly) return std::ranges::find(watchedPaths_, eventPath) == watchedPaths_.end();\n",
        "  if (watchedFoldersOnly && std::ranges::find(watchedPaths_, eventPath) == watchedPaths_.end()) return true;\n",
        "watcher_tests",
        "CDEventsFilter.*:CDEventsDelivery.*",
    ),
    Defect(
        "report-contains-some-exceptions-only",
        "src/watcher/FileWatcherServiceXPC.cpp",
        '  platform::runContained("the failure could not be reported", [&] { logErrorMethod(failure); });\n',
        "  try {\n    logErrorMethod(failure);\n  } catch (const platform::Exception&) {\n  }\n",
        "watcher_tests",
        "FailureReport.ThatFindsNoThreadIsLogged",
    ),
    Defect(
        "clients-handler-stops-its-keeper",
        "app/client/WatchKeeper.cpp",
        '  platform::runContained("an exception left the event handler of a FileWatcherClient", [&] { (*handler)({kind, text}); });\n',
        "  (*handler)({kind, text});\n",
        "app_tests",
        "Client.GoesOnWhenItsHandlerThrows",
    ),
    Defect(
        "keeper-gives-up-at-once",
        "app/client/WatchKeeper.cpp",
        "  } else if (mayMendItself(start.outcome)) {\n    askLater();\n",
        "  } else if (mayMendItself(start.outcome)) {\n    enter(GivenUp{});\n",
        "app_tests",
        "Client.KeepsAskingWhenTheServiceDoesNotComeBack",
    ),
    # The values and the preferences.
    Defect(
        "url-escape-unchecked",
        "src/platform/foundation/url/URL.cpp",
        "    if (isLegalInURL(c) || c == '[' || c == ']') {\n",
        "    if (isLegalInURL(c) || c == '%' || c == '[' || c == ']') {\n",
        "foundation_tests",
        "URLWithString.*",
    ),
    Defect(
        "cache-misses-the-reset",
        "src/platform/foundation/preferences/UserDefaults.cpp",
        "    if (!isFresh() || !holds(onDisk_.values, changes_)) {\n",
        "    if (!holds(onDisk_.values, changes_)) {\n",
        "foundation_tests",
        "UserDefaults*",
    ),
    Defect(
        "writer-without-the-lock",
        "src/platform/foundation/preferences/PreferencesFolder.cpp",
        "      result = flock(file.fileDescriptor(), LOCK_EX);\n      if (result != 0 && errno == EBADF) {\n",
        "      result = flock(file.fileDescriptor(), LOCK_SH);\n      if (result != 0 && errno == EBADF) {\n",
        "foundation_tests",
        "UserDefaultsExchange.*:UserDefaultsProcesses.*",
    ),
    Defect(
        "version-of-another-read",
        "src/platform/foundation/preferences/PreferencesFile.cpp",
        "return {std::move(values), FileVersion(std::move(file))};\n",
        "return {std::move(values), (::usleep(100), FileVersion(openForReading(path_)))};\n",
        "foundation_tests",
        "UserDefaultsProcesses.LoseNoSignalHoweverFastItIsSetAndReset",
    ),
    Defect(
        "old-file-removed-first",
        "src/platform/foundation/preferences/PreferencesFile.cpp",
        "    folder.rename(temporary, name_);\n",
        "    folder.remove(name_);\n    folder.rename(temporary, name_);\n",
        "foundation_tests",
        "UserDefaultsProcesses.ReadOnlyWholeFilesWhileAnotherWrites",
    ),
    Defect(
        "writer-does-not-merge",
        "src/platform/foundation/preferences/UserDefaults.cpp",
        "  Dictionary result = values.dictionaryValue();\n",
        "  Dictionary result = values.isNil() ? values.dictionaryValue() : Dictionary();\n",
        "foundation_tests",
        "UserDefaultsMerging.*",
    ),
    Defect(
        "corrupt-file-not-kept",
        "src/platform/foundation/preferences/PreferencesFile.cpp",
        "  setAside(folder, unusable->why);\n",
        "  folder.remove(name_);\n",
        "foundation_tests",
        "UserDefaultsFailures.*",
    ),
    Defect(
        "file-named-before-its-bytes",
        "src/platform/foundation/preferences/PreferencesFile.cpp",
        "  FileHandle file = folder.write(temporary, bytes);\n  try {\n    folder.rename(temporary, name_);\n",
        "  FileHandle file = folder.write(temporary, {});\n  try {\n    folder.rename(temporary, name_);\n"
        "    const FileHandle late(::open(path_.c_str(), O_WRONLY | O_CLOEXEC));\n"
        "    static_cast<void>(!::write(late.fileDescriptor(), bytes.data(), bytes.size()));\n",
        "foundation_tests",
        "UserDefaultsProcesses.KilledAtAnyMomentLeaveAWholeFile",
    ),
    Defect(
        "property-list-nested-without-bound",
        "src/platform/foundation/formats/PropertyListXMLReader.cpp",
        '      if (open_.size() == kPropertyListMaximumDepth) fail("nested too deeply");\n',
        "",
        "foundation_tests",
        "PropertyList.*",
    ),
    Defect(
        "date-beyond-the-last-year",
        "src/platform/foundation/formats/PropertyListText.cpp",
        "  if (!propertyListDateText(date)) return std::nullopt;\n",
        "",
        "foundation_tests",
        "PropertyList.*",
    ),
    Defect(
        "interrupted-read-is-an-error",
        "src/platform/foundation/base/DescriptorIO.cpp",
        "    const ssize_t count = ::read(descriptor, piece.data(), piece.size());\n    if (count < 0 && errno == EINTR) continue;\n",
        "    const ssize_t count = ::read(descriptor, piece.data(), piece.size());\n",
        "foundation_tests",
        "DescriptorIO.*",
    ),
    Defect(
        "folder-refused-without-a-reason",
        "src/platform/foundation/preferences/PreferencesFolder.cpp",
        "    if (const int error = makeFolders(path, makeFolder); error != 0) throwError(error, \"making the folder\");\n",
        "    static_cast<void>(makeFolders(path, makeFolder));\n",
        "foundation_tests",
        "UserDefaultsFailures.*",
    ),
    # The run loop and the queues.
    Defect(
        "queues-share-eight-threads",
        "src/platform/concurrency/queue/ThreadPool.cpp",
        "    isPromised = waiting_.size() < parked_ + beginning_;\n",
        "    isPromised = waiting_.size() < parked_ + beginning_ || threads_ >= 8;\n",
        "concurrency_tests",
        "ThreadPool.RunsAsManyBlocksAtOnceAsThereAreAndParksFourThreads:SerialQueue.HoldsUpNoOtherQueueWithABlockThatDoesNotReturn",
    ),
    Defect(
        "run-loop-not-told-that-nothing-is-left",
        "src/platform/concurrency/loop/EventLoop.cpp",
        "  if (items_.empty()) wake();\n",
        "",
        "concurrency_tests",
        "RunLoopItem.InvalidateEndsARunThatHasNothingLeft",
    ),
    Defect(
        "invalidate-does-not-wait",
        "src/platform/concurrency/loop/RunLoopItemCore.cpp",
        "  while (running_ != 0) finished_.wait(lock);\n",
        "",
        "concurrency_tests",
        "RunLoopItem.InvalidateWaitsForARunningCallbackAndItsCaptures",
    ),
    Defect(
        "failure-on-a-serving-thread-not-contained",
        "src/platform/concurrency/thread/LoopThread.cpp",
        "    while (!ended_) runContained(failure_, [this] { loop_->run(); });\n",
        "    while (!ended_) loop_->run();\n",
        "concurrency_tests",
        "LoopThread.SaysWhatLeavesABlockOrACallbackAndGoesOn",
    ),
    Defect(
        "run-loop-woken-once-for-ever",
        "src/platform/concurrency/loop/WakeUp.cpp",
        "  if (state_.exchange(State::Awake) != State::Woken && !wasReadable) return;\n",
        "  if (state_.exchange(State::Awake) != State::Woken && !(wasReadable && false)) return;\n",
        "concurrency_tests",
        "WakeUp.*",
    ),
    # The local channel.
    Defect(
        "frame-length-unchecked",
        "src/platform/xpc/channel/Frame.cpp",
        '  if (header.payloadBytes > kMaximumPayloadBytes) return WireError{"the frame is too large"};\n',
        "",
        "xpc_tests",
        "FrameReader.*",
    ),
    Defect(
        "nesting-unbounded",
        "src/platform/xpc/value/WireDecoder.cpp",
        '    if (depth > kMaximumDepth) throw Malformed("the value is nested too deeply");\n',
        "",
        "xpc_tests",
        "WireFormat.*",
    ),
    Defect(
        "count-believed",
        "src/platform/xpc/value/WireDecoder.cpp",
        '    if (value > rest_.size() / smallest) throw Malformed("a count is larger than what follows");\n',
        "    static_cast<void>(smallest);\n",
        "xpc_tests",
        "WireFormat.*",
    ),
    Defect(
        "credentials-not-taken",
        "src/platform/xpc/channel/Channel.cpp",
        "    credentials_ = *received.credentials;\n    credentials_.asid = auditSession(credentials_.pid);\n",
        "",
        "xpc_tests",
        "Connection.KnowsThePeerByTheCredentialsOfItsFirstFrame",
    ),
    Defect(
        "credentials-not-demanded",
        "src/platform/xpc/channel/Channel.cpp",
        "    if (!received.credentials) {\n      end(\"its first message came without credentials\");\n      return false;\n    }\n"
        "    credentials_ = *received.credentials;\n",
        "    credentials_ = received.credentials.value_or(credentials_);\n",
        "xpc_tests",
        "Connection.IsOverWhenTheFirstFrameCameWithoutCredentials",
    ),
    # The event stream.
    Defect(
        "listed-before-marked",
        "src/platform/fsevents/WatchedTreeCrawl.cpp",
        "  int error = source_ ? source_->mark(descriptor, true, key) : queueError_;\n"
        "  const bool isMarked = source_ && error == 0;\n"
        "  if (!isMarked && parent != kNoNode && (isGone(error) || isRefused(error))) {\n"
        "    openFailed(parent, name, nullptr, error);\n"
        "    return;\n"
        "  }\n"
        "  refusesSource_ = refusesSource_ || (source_ && isUnsuitable(error));\n"
        "  if (refusesSource_) return;\n"
        "  const bool wasKnown = tree_.findByKey(key.view()) != kNoNode;\n"
        "  const NodeId node = settle(parent, name, key.view());\n"
        "  if (node == kNoNode) return;\n"
        "  if (isMarked) countMark(node);\n"
        "  if (isMarked && !wasKnown) {\n"
        "    if (const std::uint64_t after = readQueue(); source_->position() < after) young_[node] = {openedAt, after};\n"
        "  }\n"
        "  tree_.setGeneration(node, generation_);\n"
        "  // What the polling compares with is read before the listing: what comes in between is in the listing, and found once more.\n"
        "  const bool isPolled = !isMarked || options_.policy.isForeign();\n"
        "  const bool isReadable = !isPolled || poll(node, descriptor, isMarked ? 0 : error);\n"
        "  error = isReadable ? list(node, std::move(folder), report, stack) : errno;\n",
        "  int error = source_ ? source_->keyOf(descriptor, key) : queueError_;\n"
        "  const bool isMarked = source_ && error == 0;\n"
        "  if (!isMarked && parent != kNoNode && (isGone(error) || isRefused(error))) {\n"
        "    openFailed(parent, name, nullptr, error);\n"
        "    return;\n"
        "  }\n"
        "  refusesSource_ = refusesSource_ || (source_ && isUnsuitable(error));\n"
        "  if (refusesSource_) return;\n"
        "  const bool wasKnown = tree_.findByKey(key.view()) != kNoNode;\n"
        "  const NodeId node = settle(parent, name, key.view());\n"
        "  if (node == kNoNode) return;\n"
        "  if (isMarked) countMark(node);\n"
        "  if (isMarked && !wasKnown) {\n"
        "    if (const std::uint64_t after = readQueue(); source_->position() < after) young_[node] = {openedAt, after};\n"
        "  }\n"
        "  tree_.setGeneration(node, generation_);\n"
        "  // What the polling compares with is read before the listing: what comes in between is in the listing, and found once more.\n"
        "  const bool isPolled = !isMarked || options_.policy.isForeign();\n"
        "  const bool isReadable = !isPolled || poll(node, descriptor, isMarked ? 0 : error);\n"
        "  error = isReadable ? list(node, std::move(folder), report, stack) : errno;\n"
        "  if (const FileHandle late = openFolder(node, {}); late.isOpen() && source_->mark(late.fileDescriptor(), true, key) == 0)\n"
        "    tree_.setKey(node, key.view());\n",
        "fsevents_tests",
        "StreamNewFolders.ThatAreFilledWhileTheyAreListedMissNothing/*",
    ),
    Defect(
        "awaited-name-not-looked-for-again",
        "src/platform/fsevents/RootMonitor.cpp",
        "  isSettled_ = isSettled_ && ::lstat(awaited.c_str(), &info) != 0;\n",
        "  static_cast<void>(::lstat(awaited.c_str(), &info));\n",
        "fsevents_tests",
        "RootMonitorTest.MissesNoAncestorThatAppearsWhileItLooks",
    ),
    Defect(
        "empty-folder-unguarded",
        "src/platform/fsevents/RootMonitor.cpp",
        "  if (mayBeEmpty(at)) guard(number, at);\n",
        "",
        "fsevents_tests",
        "StreamWatchedPath.*HoldsItOpen*",
    ),
    Defect(
        "emptied-folder-unguarded",
        "src/platform/fsevents/WatchedTreeChanges.cpp",
        "  if (folder == DirectoryTree::kRoot && (change.bits & RawChange::kRemoved) != 0) rootLostItem_ = true;\n",
        "",
        "fsevents_tests",
        "StreamWatchedPath.*HoldsItOpen*",
    ),
    Defect(
        "overflow-ignored",
        "src/platform/fsevents/WatchedTreeChanges.cpp",
        "    overflowed_ = true;\n    return;\n",
        "    return;\n",
        "fsevents_tests",
        "*StreamOverflow*",
    ),
    Defect(
        "latency-restarted-by-each-change",
        "src/platform/fsevents/Coalescer.cpp",
        "  if (events_.empty()) opened_ = Clock::now();\n",
        "  opened_ = Clock::now();\n",
        "fsevents_tests",
        "*Latency*:*Coalescer*",
    ),
    Defect(
        "erasing-cuts-a-run",
        "src/platform/fsevents/HashIndex.h",
        "      if (distance(home(slots_[at].hash), at) >= distance(hole, at)) {\n",
        "      if (false) {\n",
        "fsevents_tests",
        "HashIndex.*",
    ),
    Defect(
        "removal-cancels-creation",
        "src/platform/fsevents/Coalescer.cpp",
        "  event.flags |= flags;\n",
        "  event.flags = flags;\n",
        "fsevents_tests",
        "*StreamItems.TellAnItemThatCameAndWentWithinAWindow*",
    ),
    Defect(
        "exclusion-by-prefix",
        "src/platform/fsevents/Exclusions.h",
        "      if (path.starts_with(place) && (path.size() == place.size() || path[place.size()] == '/')) return true;\n",
        "      if (path.starts_with(place)) return true;\n",
        "fsevents_tests",
        "*Exclu*",
    ),
    Defect(
        "renamed-folder-not-re-parented",
        "src/platform/fsevents/DirectoryTree.cpp",
        "  detach(node);\n  unlink(node);\n  const std::string keptName(newName);\n  const std::string keptKey(key(node));\n"
        "  setText(node, keptName, keptKey);\n  link(node, newParent);\n",
        "  const NodeId former = at(node).parent;\n"
        "  detach(node);\n  unlink(node);\n  const std::string keptName(newName);\n  const std::string keptKey(key(node));\n"
        "  setText(node, keptName, keptKey);\n  link(node, former == kNoNode ? newParent : former);\n",
        "fsevents_tests",
        "DirectoryTree.*:*StreamRenames*",
    ),
    Defect(
        "folder-that-left-still-told",
        "src/platform/fsevents/WatchedTreeChanges.cpp",
        "    if (node != kNoNode) forget(node, Why::Left);\n",
        "",
        "fsevents_tests",
        "*StreamRenames.Out*",
    ),
    Defect(
        "own-changes-told",
        "src/platform/fsevents/WatchedTreeChanges.cpp",
        "  bool silent = change.own && options_.ignoreSelf;\n",
        "  bool silent = false;\n",
        "fsevents_tests",
        "*StreamIgnoreSelf.LeavesOutOwnChanges*",
    ),
    Defect(
        "write-through-a-mapping-not-told",
        "src/platform/fsevents/WatchedTreeChanges.cpp",
        "    {RawChange::kClosedWrite, kFSEventStreamEventFlagItemModified},\n",
        "",
        "fsevents_tests",
        "*Mapping*",
    ),
    # What is lost, and when it is over.
    # The world under a watch.
    Defect(
        "exclusion-that-moves-along",
        "src/platform/fsevents/WatchedTreePlaces.cpp",
        "  if (!exclusions_.empty()) exclusionsMoved(node, from);\n",
        "",
        "fsevents_tests",
        "WorldExclusions.EndBelowAFolderThatIsRenamed/*",
    ),
    Defect(
        "unlimited-queue-not-asked-for",
        "src/platform/fsevents/FanotifySource.cpp",
        "  constexpr unsigned kUnlimited = FAN_UNLIMITED_QUEUE | FAN_UNLIMITED_MARKS;\n",
        "  constexpr unsigned kUnlimited = 0;\n",
        "fsevents_tests",
        "WorldOverflows.AreNotForAStreamWithRootsRights/fanotify",
    ),
    Defect(
        "marks-not-freed-near-the-limit",
        "src/platform/fsevents/WatchedTreeCrawl.cpp",
        "    if (!drain() && !hasUnapplied()) resume(emptyAt_);\n",
        "",
        "fsevents_tests",
        "WorldOverflows.OfTheLimitAreNotNeededToFreeMarks/fanotify",
    ),
    Defect(
        "each-departure-marks-everything",
        "src/platform/fsevents/WatchedTreeCrawl.cpp",
        "constexpr int kRenewalRatio = 1000;\n",
        "constexpr int kRenewalRatio = 0;\n",
        "fsevents_tests",
        "WorldOverflows.OfWorkDoNotFollowFromFoldersThatMoveOutOneByOne/fanotify",
    ),
    Defect(
        "removed-watches-fill-the-queue",
        "src/platform/fsevents/WatchedTreeChanges.cpp",
        "    if (++removed % kRemovalsBetweenDrains == 0) drain();\n",
        "    ++removed;\n",
        "fsevents_tests",
        "WorldOverflows.AreNotMadeByALargeTreeThatMovesOut/inotify",
    ),
    Defect(
        "folder-that-may-not-be-entered-forgotten",
        "src/platform/fsevents/WatchedTreeTrouble.cpp",
        "    if ((tree_.flags(child) & kTroubled) != 0 && !tree_.isDetached(child)) names.emplace_back(tree_.name(child));\n",
        "    static_cast<void>(child);\n",
        "fsevents_tests",
        "WorldRights.ToEnterAreMissedWhereReadingIsAllowed/*",
    ),
    Defect(
        "loss-told-once-for-ever",
        "src/platform/fsevents/Losses.cpp",
        "  if (auto there = known.lasting.extract(place); !there.empty()) {\n    over(place, std::move(there.mapped()));\n",
        "  if (const auto there = known.lasting.find(place); there != known.lasting.end()) {\n",
        "fsevents_tests",
        "Losses.*",
    ),
    Defect(
        "recovered-with-the-first-of-two",
        "src/platform/fsevents/Losses.cpp",
        "  if (!lastsAt(path)) notices_.add({false, path, record.reason, record.remedy});\n  const auto same",
        "  notices_.add({false, path, record.reason, record.remedy});\n  const auto same",
        "fsevents_tests",
        "Losses.*",
    ),
    Defect(
        "loss-beyond-the-bound-untold",
        "src/platform/fsevents/Losses.cpp",
        "  if (rest.members.contains(std::hash<std::string>()(path))) return false;\n",
        "  if (!rest.members.empty()) return false;\n",
        "fsevents_tests",
        "Losses.*",
    ),
    Defect(
        "loss-stays-where-the-folder-was",
        "src/platform/fsevents/Losses.cpp",
        "      place.key() = to + place.key().substr(from.size());\n",
        "",
        "fsevents_tests",
        "Losses.*",
    ),
    Defect(
        "recovery-left-out-for-a-slow-reader",
        "src/platform/fsevents/LossNotices.cpp",
        "    } else if (!open.empty()) {\n",
        "    } else {\n",
        "fsevents_tests",
        "Losses.*",
    ),
    # The client of the server.
    Defect(
        "wrong-key-in-a-body",
        "src/Services/records/ComputerRecords.h",
        '&LogErrorQuery::computerId, "ComputerID"',
        '&LogErrorQuery::computerId, "ComputerId"',
        "services_tests",
        "QueryParser*:RestCalls*",
    ),
    Defect(
        "swapped-status",
        "src/Services/RestJSON.cpp",
        "finished(parsed.error(), RestStatusResponseParseError)",
        "finished(parsed.error(), RestStatusSuccess)",
        "services_tests",
        "RestConnector*",
    ),
    Defect(
        "unknown-error-told",
        "src/Services/RestJSON.cpp",
        '      platform::NSLog("error code at rest connector strt async task......");\n      return;\n',
        '      platform::NSLog("error code at rest connector strt async task......");\n',
        "services_tests",
        "*",
    ),
    Defect(
        "header-set-instead-of-added",
        "src/platform/network/message/HTTPHeaders.cpp",
        '.second.append(",").append(value);',
        ".second = value;",
        "network_tests",
        "*",
    ),
    Defect(
        "exception-through-libcurl",
        "src/platform/network/wire/Exchange.cpp",
        "  return runContained(kNetworkFailure, std::cref(block));\n",
        "  block();\n  return true;\n",
        "network_tests",
        "Exchange*",
    ),
    Defect(
        "upload-without-a-snapshot",
        "src/Services/RestConnectorUpload.cpp",
        "Bytes::snapshotOfFile(source->path())",
        "Bytes::dataWithContentsOfFile(source->path())",
        "services_tests",
        "RestConnectorUpload*",
    ),
    Defect(
        "upload-left-behind",
        "src/Services/RestConnectorUpload.cpp",
        "  unlink(stagingPathOf(fileName).c_str());\n",
        "  static_cast<void>(stagingPathOf(fileName));\n",
        "services_tests",
        "RestConnectorUpload*",
    ),
    Defect(
        "pause-that-pauses",
        "src/Services/RestConnector.cpp",
        "  sessionTask()->resume();\n  return RestStatusPaused;\n",
        "  sessionTask()->cancel();\n  return RestStatusPaused;\n",
        "services_tests",
        "RestConnector*",
    ),
    Defect(
        "intervention-ignored",
        "src/Services/Reachability/Reachability.cpp",
        "connectsItself && !needsSomebody ?",
        "connectsItself || needsSomebody ?",
        "services_tests",
        "*Reachability*",
    ),
    Defect(
        "direct-attachment-ignored",
        "src/Services/NetWorkConnectionStatus.cpp",
        "  return isSet(kSCNetworkReachabilityFlagsIsDirect);\n",
        "  return false;\n",
        "services_tests",
        "*",
    ),
    Defect(
        "large-integer-refused",
        "src/platform/foundation/formats/JSONReader.cpp",
        "if (!text.starts_with('-') && std::from_chars",
        "if (false && std::from_chars",
        "foundation_tests",
        "JSONReader*:*JSON*",
    ),
    Defect(
        "null-taken-for-nothing",
        "src/platform/foundation/formats/JSONReader.cpp",
        "return value(Object::null());",
        "return value(Object());",
        "foundation_tests",
        "*JSON*",
    ),
    # Messages at the level of objects, and the hosting without a listener.
    Defect(
        "uuid-described-without-its-class",
        "src/xpc/XPCUUID.cpp",
        '"<XPCUUID {}>"',
        '"<{}>"',
        "xpctoolkit_tests",
        "XPCUUID.*",
    ),
    Defect(
        "array-compacted-on-the-way-in",
        "src/xpc/XPCParse.cpp",
        "    if (index > elements.size()) {\n",
        "    if (index < elements.size()) {\n",
        "xpctoolkit_tests",
        "XPCParse.*",
    ),
    Defect(
        "false-sent-as-a-boolean",
        "src/xpc/XPCParse.cpp",
        "if (isTrueBoolean(number)) return Value::boolean(false);",
        "if (number.numberType() == NumberType::Bool) return Value::boolean(false);",
        "xpctoolkit_tests",
        "XPCParse.*:XPCParse/*",
    ),
    Defect(
        "date-rounded",
        "src/xpc/XPCParse.cpp",
        "return static_cast<std::int64_t>(wanted);",
        "return static_cast<std::int64_t>(std::round(wanted));",
        "xpctoolkit_tests",
        "XPCParse/*",
    ),
    Defect(
        "descriptor-not-duplicated",
        "src/xpc/XPCParse.cpp",
        "return Object(std::make_shared<const platform::FileHandle>(object.duplicateFileDescriptor()));",
        "return Object(object.fileDescriptorValue());",
        "xpctoolkit_tests",
        "XPCParse.DuplicatesDescriptors*",
    ),
    Defect(
        "debug-line-handed-over",
        "src/xpc/XPCConnection.cpp",
        "if (const Object line = message.objectForKey(kDebugLogKey)) return platform::NSLog(",
        "if (const Object line = message.objectForKey(kDebugLogKey)) platform::NSLog(",
        "xpctoolkit_tests",
        "XPCConnectionMessages.LogsADebugLine*",
    ),
    Defect(
        "connection-kept-by-its-own-handler",
        "src/xpc/XPCConnection.cpp",
        "[weak = weak_from_this()](const Event& event)",
        "[weak = weak_from_this(), kept = shared_from_this()](const Event& event)",
        "xpctoolkit_tests",
        "XPCConnectionLifetime.IsKeptByNobody*",
    ),
    Defect(
        "handler-released-with-its-connection",
        "src/xpc/XPCConnection.cpp",
        "  if (eventHandler_) NeverReleased::registry().keep(std::move(eventHandler_));\n",
        "",
        "xpctoolkit_tests",
        "XPCConnectionLifetime.NeverReleases*",
    ),
    Defect(
        "new-peer-told-too-late",
        "src/service/XPCService.cpp",
        "  NotificationCenter::defaultCenter().postNotification({kXPCConnectionReceivedNotification, wrapper});\n",
        "  platform::runOnPoolThread(\n"
        "      [wrapper] { NotificationCenter::defaultCenter().postNotification({kXPCConnectionReceivedNotification, wrapper}); });\n",
        "service_tests",
        "XPCServiceTest.*",
    ),
    Defect(
        "new-peer-told-on-any-thread",
        "src/service/XPCService.cpp",
        "platform::synchronousExecutor(OperationQueue::mainQueue())",
        "nullptr",
        "service_tests",
        "XPCServiceTest.RecordsTwoPeers*",
    ),
    Defect(
        "message-overtakes-what-waits",
        "src/platform/xpc/channel/SendQueue.cpp",
        "  if (!first) return bytes_ > kMaximumBytes ? Added::TooMuch : Added::Done;\n",
        "  if (!first) std::swap(entries_.front(), entries_.back());\n",
        "xpc_tests",
        "Sending.*",
    ),
    Defect(
        "message-overtakes-what-was-posted",
        "src/platform/xpc/connection/ConnectionCore.cpp",
        "if (!direct_ || posted_ > 0)",
        "if (!direct_)",
        "xpc_tests",
        "Sending.*",
    ),
    # Starting a service, and its end.
    Defect(
        "refused-lock-taken-for-a-held-one",
        "src/platform/xpc/launch/LockFile.cpp",
        "  return result == 0 ? 0 : errno;\n",
        "  return result == 0 ? 0 : kHeldBySomebodyElse;\n",
        "xpc_tests",
        "LockWaiting.EndsAtOnceWhenTheSystemRefusesTheLock",
    ),
    Defect(
        "idle-peer-taken-for-a-silent-one",
        "src/platform/xpc/channel/Channel.cpp",
        "reading_ && (!hadFrame_ || reader_.isInsideFrame());\n",
        "reading_;\n",
        "xpc_tests",
        "HostileSilence.IsEndedAndAnIdlePeerIsNot",
    ),
    Defect(
        "loop-waits-for-a-lock",
        "src/platform/xpc/service/LockWait.cpp",
        "  const int error = lock_.tryLock();\n",
        "  static_cast<void>(lock_.lock(std::chrono::seconds(20)));\n  const int error = lock_.tryLock();\n",
        "xpc_tests",
        "LockWaiting.LetsTheLoopServeOthersUntilTheLockIsFree",
    ),
    Defect(
        "number-of-a-dead-service-believed",
        "src/platform/xpc/launch/ServiceLocks.cpp",
        "pid <= 0 || startTime(pid) != started",
        "pid <= 0",
        "xpc_tests",
        "ServiceLocks.BelieveNoMarkOfAProcessThatIsGone",
    ),
    Defect(
        "socket-meant-for-another-process-taken",
        "src/platform/xpc/launch/SocketActivation.cpp",
        "process != nullptr && std::to_string(getpid()) == process && ",
        "process != nullptr && ",
        "xpc_tests",
        "SocketActivation.TakesNothingThatIsNotForThisProcess",
    ),
    Defect(
        "hang-up-unseen-while-not-reading",
        "src/platform/xpc/channel/Channel.cpp",
        "(events & kTrouble) != 0 && state_ == State::Open",
        "(events & kTrouble) != 0 && false",
        "xpc_tests",
        "Listener.KeepsWhatAClientLeft*",
    ),
    Defect(
        "status-failure-of-no-exception",
        "src/platform/xpc/channel/Channel.cpp",
        '  } catch (...) {\n    return WireError{"an exception of an unknown type"};\n',
        "",
        "xpc_tests",
        "Channel.EndsWhenItsSource*",
    ),
    Defect(
        "peer-of-a-failed-function-kept",
        "src/platform/xpc/connection/ListenerCore.cpp",
        "    if (!accepted) connection_->cancel();\n",
        "    static_cast<void>(accepted);\n",
        "xpc_tests",
        "Listener.ClosesAConnectionWhoseFunctionThrew*",
    ),
    Defect(
        "resumed-peer-owned-by-nobody",
        "src/platform/xpc/connection/ConnectionCore.cpp",
        "peers.try_emplace(this, peer);",
        "if (peers.size() > 1U << 30U) peers.try_emplace(this, peer);",
        "xpc_tests",
        "Listener.KeepsAResumedConnection*",
    ),
    Defect(
        "run-loop-sleeps-with-nothing-left",
        "src/platform/concurrency/loop/EventLoop.cpp",
        "const bool nothingToWaitFor = !until && items_.empty();",
        "const bool nothingToWaitFor = false;",
        "concurrency_tests",
        "RunLoopItem.InvalidateEndsARunThatIsAbout*",
    ),
    # What is mounted.
    Defect(
        "mounts-read-once",
        "src/platform/fsevents/Mounts.cpp",
        "constexpr int kAttempts = 10;",
        "constexpr int kAttempts = 1;",
        "fsevents_tests",
        "MountsOf.ThatReplaceOneAnother*",
    ),
    Defect(
        "mounts-forgotten-with-their-table",
        "src/platform/fsevents/Mounts.cpp",
        "      if (!readOnce(mounts)) return false;\n",
        "      if (!readOnce(mounts)) break;\n",
        "fsevents_tests",
        "MountsOf.AreKnownAsTheyWere*",
    ),
    Defect(
        "mounts-told-apart-by-their-ids",
        "src/platform/fsevents/Mounts.cpp",
        "  for (Mount& mount : mounts) mount.serial = serials_.of(mount.id);\n",
        "",
        "fsevents_tests",
        "MountsOf.ThatAreReplacedBetweenTwoLooks*",
    ),
    Defect(
        "mount-point-still-escaped",
        "src/platform/fsevents/MountTable.cpp",
        "  mount.point = unescaped(nextField(line));\n",
        "  mount.point = nextField(line);\n",
        "fsevents_tests",
        "MountTable.*:MountsOf.WithStrangeNames*",
    ),
    Defect(
        "hidden-mount-seen",
        "src/platform/fsevents/MountTable.cpp",
        "      if (last && isBelow(mounts_[sibling].point, mounts_[*last].point)) continue;\n",
        "      static_cast<void>(isBelow);\n",
        "fsevents_tests",
        "MountTable.*:MountsOf.ShowTheOneOnTop*",
    ),
    Defect(
        "mount-upon-the-root-reached",
        "src/platform/fsevents/MountTable.cpp",
        """        } else if (mounts_[mount].point != "/") {\n""",
        "        } else {\n",
        "fsevents_tests",
        "MountTable.*",
    ),
    Defect(
        "sysfs-entered",
        "src/platform/fsevents/FileSystems.cpp",
        '"sysfs",',
        "",
        "fsevents_tests",
        "FileSystems.*",
    ),
    Defect(
        "whole-seconds-trusted",
        "src/platform/fsevents/FileSystems.cpp",
        "constexpr nanoseconds kWholeSeconds = seconds(1) + kTick;",
        "constexpr nanoseconds kWholeSeconds = kTick;",
        "fsevents_tests",
        "FileSystems.*:FileSystemAbilitiesOf.*ext4small",
    ),
]
