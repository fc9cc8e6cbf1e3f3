// SPDX-License-Identifier: MIT
// /metrics: a published state of the run in the Prometheus text format (version 0.0.4):
// transactions by station and outcome, response times as a histogram, port losses, late
// replies, echoes removed, stations set aside, passes, and the age of every polled value.
#ifndef MODBUS_ASCII_HOST_METRICS_TEXT_H
#define MODBUS_ASCII_HOST_METRICS_TEXT_H

#include <string>

#include "web_state.h"

// The media type of the text.
constexpr const char *kMetricsContentType = "text/plain; version=0.0.4; charset=utf-8";

std::string MetricsText(const LiveSnapshot &snapshot);

// A label value with backslash, double quote and line feed escaped.
std::string EscapedLabel(const std::string &value);

#endif  // MODBUS_ASCII_HOST_METRICS_TEXT_H
