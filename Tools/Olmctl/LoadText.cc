#include "LoadText.h"

#include <cstdio>

namespace Olmctl {

namespace {

constexpr uint32_t kHundredths = 100;

}  // namespace

std::string shareText(const std::optional<LoadShares>& shares, double LoadShares::*share) {
  return shares ? percentText((*shares).*share) : "-";
}

std::string meterPercentText(uint32_t hundredths) {
  char text[32];
  std::snprintf(text, sizeof(text), "%u.%02u", hundredths / kHundredths, hundredths % kHundredths);
  return text;
}

void addShares(JsonObject& object, const std::optional<LoadShares>& shares) {
  for (const LoadFigure& figure : kLoadFigures) {
    if (shares) {
      object.number(figure.jsonKey, (*shares).*figure.share);
    } else {
      object.raw(figure.jsonKey, "null");
    }
  }
}

JsonObject loadJson(const LoadCounters& ticks) {
  JsonObject object;
  addShares(object, loadShares(ticks));
  for (const TickFigure& figure : kTickFigures) object.number(figure.jsonKey, ticks.*figure.ticks);
  return object;
}

JsonObject meterJson(const IdleMeterReading& meter) {
  return JsonObject()
      .number("periodMs", uint64_t{meter.periodMs})
      .raw("busyPercent", meterPercentText(meter.load))
      .raw("minPercent", meterPercentText(meter.minimum))
      .raw("maxPercent", meterPercentText(meter.maximum));
}

}  // namespace Olmctl
