// Root of every object that crosses the module boundary: any of them can be
// destroyed by freeSSObject without knowing its concrete class.
#pragma once

class SSObject {
public:
    SSObject() {}
    virtual ~SSObject() {}
};
