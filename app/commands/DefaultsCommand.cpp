#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "app/cli/CommandError.h"
#include "app/cli/Numbers.h"
#include "app/commands/Commands.h"
#include "platform/foundation/preferences/PreferencesDomain.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/value/Dictionary.h"

namespace kestrine {

namespace {

using platform::Object;
using platform::UserDefaults;
using Kind = platform::PreferencesError::Kind;

bool isDamage(const platform::PreferencesError& error) { return error.kind == Kind::Damaged || error.kind == Kind::TooLarge; }

constexpr Option kDefaultsOptions[] = {
    {"--type", "TYPE", "what 'write' stores: string (if not given), int, float or bool"},
};

constexpr ExitNote kDefaultsExits[] = {
    {ExitCode::Ok, "done"},
    {ExitCode::Failed, "the preferences could not be read or written"},
    {ExitCode::NotFound, "no such domain or key"},
    {ExitCode::Damaged, "the domain's file is no property list, or too large for one"},
};

void checkName(const std::string& domain) {
  if (platform::isPreferencesDomainName(domain)) return;
  throw CommandError(ExitCode::Usage, fmt::format("defaults: '{}' is no name of a domain; it may not be empty or hold '/'", domain));
}

/// "It does not exist", "it may not be read" and "it is damaged" are different things to the user.
[[noreturn]] void refuseToRead(const std::string& domain, const platform::PreferencesError& error) {
  const std::string path = platform::preferencesFilePath(domain);
  if (error.kind == Kind::NoSuchDomain) {
    throw CommandError(ExitCode::NotFound,
                       fmt::format("no preferences domain '{}'; 'kestrine defaults list' names those that exist", domain));
  }
  if (isDamage(error)) throw CommandError(ExitCode::Damaged, fmt::format("'{}' holds no preferences: {}", path, error.reason));
  throw CommandError(ExitCode::Failed, fmt::format("'{}' cannot be read: {}", path, error.reason));
}

/// The domain as it is on disk.
Object read(const std::string& domain) {
  checkName(domain);
  auto values = platform::readPreferencesDomain(domain);
  if (!values) refuseToRead(domain, values.error());
  return *std::move(values);
}

[[noreturn]] void refuseToWrite(const std::string& domain, std::string_view what, const UserDefaults& defaults) {
  const auto error = defaults.lastError();
  throw CommandError(ExitCode::Failed, fmt::format("'{}' cannot be {}: {}", platform::preferencesFilePath(domain), what,
                                                   error ? error->reason : "the log above says why"));
}

Object readKey(const std::string& domain, const std::string& key) {
  Object value = read(domain).objectForKey(key);
  if (!value.isNil()) return value;
  throw CommandError(ExitCode::NotFound,
                     fmt::format("no key '{}' in domain '{}'; 'kestrine defaults list {}' names its keys", key, domain, domain));
}

/// A value that a type's text stands for; nil when the text does not fit the type.
struct Type {
  std::string_view name;
  Object (*parse)(const std::string& text);
};
constexpr Type kTypes[] = {
    {"string", [](const std::string& text) { return Object(text); }},
    {"int",
     [](const std::string& text) {
       const auto number = parseInteger(text);
       return number ? Object::numberWithLongLong(*number) : Object();
     }},
    {"float",
     [](const std::string& text) {
       const auto number = parseFraction(text);
       return number ? Object::numberWithDouble(*number) : Object();
     }},
    {"bool",
     [](const std::string& text) {
       const bool isTrue = text == "true" || text == "yes" || text == "1";
       return isTrue || text == "false" || text == "no" || text == "0" ? Object::numberWithBool(isTrue) : Object();
     }},
};

Object parseValue(const Arguments& arguments, const std::string& text) {
  const std::string type = arguments.value("--type").value_or("string");
  const auto found = std::ranges::find(kTypes, type, &Type::name);
  if (found == std::end(kTypes)) {
    throw CommandError(ExitCode::Usage, fmt::format("defaults: unknown type '{}', expected string, int, float or bool", type));
  }
  Object value = found->parse(text);
  if (value.isNil()) throw CommandError(ExitCode::Usage, fmt::format("defaults: '{}' is no value of type {}", text, type));
  return value;
}

void store(const std::string& domain, const std::string& key, const Object& value) {
  UserDefaults defaults(domain);
  defaults.setObject_forKey(value, key);
  if (!defaults.synchronize()) refuseToWrite(domain, "written", defaults);
}

void printRead(const Arguments& arguments) {
  const auto& operands = arguments.operands();
  const Object value = operands.size() > 2 ? readKey(operands[1], operands[2]) : read(operands[1]);
  fmt::print("{}\n", value.description());
}

void write(const Arguments& arguments) {
  const auto& operands = arguments.operands();
  checkName(operands[1]);
  store(operands[1], operands[2], parseValue(arguments, operands[3]));
}

void remove(const Arguments& arguments) {
  const auto& operands = arguments.operands();
  if (operands.size() > 2) {
    readKey(operands[1], operands[2]);
    return store(operands[1], operands[2], nullptr);
  }
  checkName(operands[1]);
  // What is damaged can go as well.
  if (const auto values = platform::readPreferencesDomain(operands[1]); !values && !isDamage(values.error())) {
    refuseToRead(operands[1], values.error());
  }
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  if (!defaults.removePersistentDomainForName(operands[1])) refuseToWrite(operands[1], "removed", defaults);
}

void list(const Arguments& arguments) {
  const auto& operands = arguments.operands();
  if (operands.size() > 1) {
    const Object values = read(operands[1]);
    for (const auto& [key, value] : values.dictionaryValue()) fmt::print("{}\n", key);
    return;
  }
  for (const std::string& domain : UserDefaults::standardUserDefaults().persistentDomainNames()) fmt::print("{}\n", domain);
}

/// What can be done, and how many operands it takes, its own name included.
struct Action {
  std::string_view name;
  std::string_view operands;
  std::size_t fewest;
  std::size_t most;
  void (*run)(const Arguments& arguments);
};
constexpr Action kActions[] = {
    {"read", "DOMAIN [KEY]", 2, 3, printRead},
    {"write", "DOMAIN KEY VALUE", 4, 4, write},
    {"delete", "DOMAIN [KEY]", 2, 3, remove},
    {"list", "[DOMAIN]", 1, 2, list},
};

ExitCode runDefaults(const Arguments& arguments) {
  const std::string& name = arguments.operands().front();
  const auto action = std::ranges::find(kActions, name, &Action::name);
  if (action == std::end(kActions)) {
    throw CommandError(ExitCode::Usage, fmt::format("defaults: unknown action '{}', expected read, write, delete or list", name));
  }
  const std::size_t count = arguments.operands().size();
  if (count < action->fewest || count > action->most) {
    throw CommandError(ExitCode::Usage, fmt::format("defaults: '{}' takes {}", action->name, action->operands));
  }
  action->run(arguments);
  return ExitCode::Ok;
}

}  // namespace

constinit const Command kDefaultsCommand{
    .name = "defaults",
    .operands = "read|write|delete|list [DOMAIN [KEY [VALUE]]]",
    .summary = "Reads and writes the preferences domains.",
    .details =
        "  read DOMAIN [KEY]         prints the domain, or the value of one key\n"
        "  write DOMAIN KEY VALUE    stores a value; the other keys stay\n"
        "  delete DOMAIN [KEY]       removes the domain, or one key\n"
        "  list [DOMAIN]             names the domains, or the keys of one",
    .options = kDefaultsOptions,
    .fewestOperands = 1,
    .mostOperands = 4,
    .exits = kDefaultsExits,
    .run = runDefaults,
};

}  // namespace kestrine
