// What the R&D master knows of every node: the R&D domains each node's slave registered, and per
// parameter its default and the value the master keeps for it.
//
// The master's value is the one that counts: a domain registered again (a restarted node) keeps
// the values the master had for its indexes, and only indexes it did not know yet take the
// slave's. Defaults always follow the latest registration.
//
// Used on the Dispatcher's thread only; no locks.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

class RadStore {
 public:
  struct Param {
    uint32_t index;
    uint32_t defaultValue;
    uint32_t value;
  };
  using Domain = std::vector<Param>;  // in index order, each index once

  // A registration of the slave of node. Records of an index given twice: the last one counts.
  void registerDomain(uint16_t node, uint16_t domain, const std::vector<Param>& registered);
  // False when the domain was not registered.
  bool unregisterDomain(uint16_t node, uint16_t domain);
  // Null when not registered. Valid until the next change of the store.
  const Domain* find(uint16_t node, uint16_t domain) const;
  // Writes the values of the given indexes; false, with the known indexes written all the same,
  // when the domain or any index is unknown.
  bool setValues(uint16_t node, uint16_t domain, const std::vector<Param>& values);
  // Every value of every domain of the node back to its default.
  void setDefaults(uint16_t node);
  // Learns a domain from what a slave answered about it (a master that started after the node):
  // the values of current, the defaults of defaults where an index is in both. Values the master
  // already keeps for an index are replaced: the node's own are newer than anything the master
  // knew before it started.
  void learnValues(uint16_t node, uint16_t domain, const std::vector<Param>& current);
  void learnDefaults(uint16_t node, uint16_t domain, const std::vector<Param>& defaults);

  // The domains of the node, in domain order.
  std::vector<uint16_t> domainsOf(uint16_t node) const;

 private:
  static uint32_t key(uint16_t node, uint16_t domain) { return uint32_t{node} << 16 | domain; }
  static Param* paramIn(Domain& domain, uint32_t index);
  // The record of index, added in order when missing.
  static Param& paramFor(Domain& domain, uint32_t index, bool& added);

  std::map<uint32_t, Domain> m_domains;
};
