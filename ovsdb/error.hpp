// What goes wrong between a client and the configuration server. Every text is one line for a person.
//
// All that fails in this library is thrown as one of these; nothing else is, but std::bad_alloc. Nothing is returned
// for a failure: an empty result means that there is none of what was asked for, and what a server said of the
// operations of a transaction is its answer.
#pragma once

#include <stdexcept>

namespace ovsdb
{

// Base of all errors of this library.
class Error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// The server cannot be reached, or the connection ended.
class ConnectionError : public Error
{
public:
    using Error::Error;
};

// Served by a process whose user is neither root nor our own; or, elsewhere, one of the two does not trust the other.
class ForeignServerError : public ConnectionError
{
public:
    using ConnectionError::ConnectionError;
};

// An answer did not arrive in time.
class TimeoutError : public Error
{
public:
    using Error::Error;
};

// The peer sent what no configuration server sends: nothing of the message is used, the connection is useless.
class ProtocolError : public Error
{
public:
    using Error::Error;
};

// The server answers, but has not got our database, or has it with tables of another shape; or somebody asks for a
// table that the database has not got.
class SchemaError : public Error
{
public:
    using Error::Error;
};

// The server understood the request and refused it as a whole.
class RequestError : public Error
{
public:
    using Error::Error;
};

} // namespace ovsdb
