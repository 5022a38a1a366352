#pragma once

#include <functional>
#include <string>

namespace kestrine::test {

/// Runs `body` in a network namespace of its own: the test that is running is started again, alone, in a second process below unshare(1),
/// and it is there that `body` runs; what fails there fails the test here, with its output. The namespace has a loopback interface that is
/// down, no route, and nothing to do with the machine's network; in it the process may make interfaces and listen on any port, also when it
/// has no rights outside. Where the machine refuses such namespaces the test is left out, and says so.
///
/// The whole test must be in `body`: what stands around it runs twice.
void inNetworkNamespace(const std::function<void()>& body);

/// Why the machine refuses such namespaces; empty when it does not.
std::string refusalOfNetworkNamespaces();

/// Runs ip(8) with these words. Throws std::runtime_error with what it said when it fails, and without
/// running it outside of such a namespace: no test touches the machine's own network.
void ip(const std::string& words);
/// The same for many commands at once, one a line, without "ip".
void ipBatch(const std::string& lines);

/// Makes two interfaces, `name` and `name`p, that are the ends of one cable (veth), both up.
void addCable(const std::string& name);
/// The loopback, a cable "v0" with the address 192.0.2.2/24, and a default route by way of 192.0.2.1: what a machine with a network has.
void connectToNetwork();

}  // namespace kestrine::test
