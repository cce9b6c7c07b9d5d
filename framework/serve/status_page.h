// The status page served at "/": one self-contained HTML document (no
// external assets) that reads /status and follows the error events.
#pragma once

namespace framework {

const char* StatusPageHtml();

}  // namespace framework
