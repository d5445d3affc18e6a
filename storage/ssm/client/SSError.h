// The error object of the provider interface (null means success) and the
// generic error it can be built from. Not shared between threads.
#pragma once

#include "liblocal/kv_msg.h"
#include "storage/ssm/client/SSObject.h"
#include "storage/ssm/client/SSTypes.h"

// A generic error of another layer: a code and a structured message.
class GenError {
public:
    virtual ~GenError() {}
    virtual SSErrCode getErrCode() const = 0;
    virtual const errinfo& getErrInfo() const = 0;
};

class SSError : public SSObject {
public:
    SSErrCode errorCode;
    errinfo errInfo;  // owns its strings

    SSError();
    SSError(SSErrCode code, errinfo& err);
    explicit SSError(const GenError& ge);
    ~SSError() override;

    void setError(SSErrCode code, errinfo& err);
    void setErrCode(SSErrCode code);
    // Never null: "NULL" once the message has been freed by reset.
    const char* getErrMsg() const;
    errinfo& getErrInfo();
    SSErrCode getErrCode() const;
    void reset();
    SSErrCode getNoErrorCode() const;
    void dupErrorTo(SSError& target);

private:
    SSError(const SSError&) = delete;
    SSError& operator=(const SSError&) = delete;
};
