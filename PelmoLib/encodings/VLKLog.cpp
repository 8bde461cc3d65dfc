#include "PelmoLib/encodings/VLKLog.h"

namespace velkor {

VLKLog& VLKLog::sharedInstance() {
    static VLKLog& instance = *new VLKLog;  // outlives every user at exit
    return instance;
}

}  // namespace velkor
