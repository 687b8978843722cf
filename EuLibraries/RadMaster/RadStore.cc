#include "RadStore.h"

#include <algorithm>

namespace {

bool byIndex(const RadStore::Param& param, uint32_t index) { return param.index < index; }

}  // namespace

RadStore::Param* RadStore::paramIn(Domain& domain, uint32_t index) {
  const auto at = std::lower_bound(domain.begin(), domain.end(), index, byIndex);
  return at != domain.end() && at->index == index ? &*at : nullptr;
}

RadStore::Param& RadStore::paramFor(Domain& domain, uint32_t index, bool& added) {
  const auto at = std::lower_bound(domain.begin(), domain.end(), index, byIndex);
  added = at == domain.end() || at->index != index;
  if (!added) return *at;
  return *domain.insert(at, Param{index, 0, 0});
}

void RadStore::registerDomain(uint16_t node, uint16_t domain, const std::vector<Param>& registered) {
  Domain& stored = m_domains[key(node, domain)];
  Domain updated;
  for (const Param& param : registered) {
    bool added = false;
    Param& record = paramFor(updated, param.index, added);
    const Param* known = paramIn(stored, param.index);
    record = Param{param.index, param.defaultValue, known != nullptr ? known->value : param.value};
  }
  stored.swap(updated);
}

bool RadStore::unregisterDomain(uint16_t node, uint16_t domain) { return m_domains.erase(key(node, domain)) != 0; }

const RadStore::Domain* RadStore::find(uint16_t node, uint16_t domain) const {
  const auto found = m_domains.find(key(node, domain));
  return found != m_domains.end() ? &found->second : nullptr;
}

bool RadStore::setValues(uint16_t node, uint16_t domain, const std::vector<Param>& values) {
  const auto found = m_domains.find(key(node, domain));
  if (found == m_domains.end()) return false;
  bool allKnown = true;
  for (const Param& param : values) {
    Param* record = paramIn(found->second, param.index);
    if (record != nullptr) {
      record->value = param.value;
    } else {
      allKnown = false;
    }
  }
  return allKnown;
}

void RadStore::setDefaults(uint16_t node) {
  for (auto at = m_domains.lower_bound(key(node, 0)); at != m_domains.end() && at->first >> 16 == node; ++at) {
    for (Param& param : at->second) param.value = param.defaultValue;
  }
}

void RadStore::learnValues(uint16_t node, uint16_t domain, const std::vector<Param>& current) {
  Domain& stored = m_domains[key(node, domain)];
  for (const Param& param : current) {
    bool added = false;
    paramFor(stored, param.index, added).value = param.value;
  }
}

void RadStore::learnDefaults(uint16_t node, uint16_t domain, const std::vector<Param>& defaults) {
  Domain& stored = m_domains[key(node, domain)];
  for (const Param& param : defaults) {
    bool added = false;
    Param& record = paramFor(stored, param.index, added);
    record.defaultValue = param.defaultValue;
    if (added) record.value = param.defaultValue;
  }
}

std::vector<uint16_t> RadStore::domainsOf(uint16_t node) const {
  std::vector<uint16_t> domains;
  for (auto at = m_domains.lower_bound(key(node, 0)); at != m_domains.end() && at->first >> 16 == node; ++at) {
    domains.push_back(static_cast<uint16_t>(at->first));
  }
  return domains;
}
