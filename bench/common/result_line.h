// One-line results passed from the load generators to the driver on standard
// output: a tag word followed by key=value fields, e.g.
//   RESULT p=8 msgs=120000 secs=3.000 rate=40000.0 p50_us=180.1 ...
// Values hold no blanks. Lines with another tag are ignored by the reader.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace bench {

using ResultFields = std::map<std::string, std::string>;

// Builds "TAG k1=v1 k2=v2 ..." in the order given.
std::string formatResult(const std::string& tag, const std::vector<std::pair<std::string, std::string>>& fields);

// Every line of `text` that starts with `tag` and a blank, parsed into fields;
// tokens without '=' are skipped.
std::vector<ResultFields> parseResults(const std::string& text, const std::string& tag);

// The field as a number; `fallback` when missing or not numeric.
double fieldNumber(const ResultFields& f, const std::string& key, double fallback);

// A number written with `decimals` digits after the point.
std::string fixed(double v, int decimals);

}  // namespace bench
