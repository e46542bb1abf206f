// The library ends the process without a word when it needs Samba's comparison of names and has no
// Samba. While one of these lives, such an end is explained.
#pragma once

namespace kvadmin {

class AskingSamba {
public:
    AskingSamba();
    ~AskingSamba();
    AskingSamba(const AskingSamba&) = delete;
    AskingSamba& operator=(const AskingSamba&) = delete;
};

}  // namespace kvadmin
