// peers.cpp - other messaging libraries, each used as its own documents show it: REQ and REP
// sockets for the round trip, PUSH and PULL sockets for the one-way stream.

#include "contender.h"

#include <cstdlib>
#include <nanomsg/nn.h>
#include <nanomsg/pipeline.h>
#include <nanomsg/reqrep.h>
#include <nanomsg/tcp.h>
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <string>
#include <zmq.h>

static std::string address_of(int port)
{
    return "tcp://127.0.0.1:" + std::to_string(port);
}

// The loops are the same for all: Send and Receive move theTask.len bytes and return their count.
template <class Send, class Receive> static void serve(Send send, Receive receive)
{
    std::string buffer(theTask.len, '\0');
    server_is_ready();
    for (;;) {
        check(receive(&buffer[0]) == theTask.len, "receive");
        if (theTask.oneWay)
            message_received();
        else
            check(send(buffer.data()) == theTask.len, "send");
    }
}

template <class Send, class Receive> static void request(Send send, Receive receive)
{
    std::string buffer(theTask.len, '\0');
    for (;;) {
        check(send(theTask.payload) == theTask.len, "send");
        if (!theTask.oneWay)
            check(receive(&buffer[0]) == theTask.len, "receive");
        tick();
    }
}

// ---- libzmq

void zmq_serve(int port)
{
    void *socket = zmq_socket(zmq_ctx_new(), theTask.oneWay ? ZMQ_PULL : ZMQ_REP);
    check(zmq_bind(socket, address_of(port).c_str()) == 0, "zmq_bind");
    serve([=](const char *bytes) { return zmq_send(socket, bytes, theTask.len, 0); },
          [=](char *bytes) { return zmq_recv(socket, bytes, theTask.len, 0); });
}

void zmq_request(int port)
{
    void *socket = zmq_socket(zmq_ctx_new(), theTask.oneWay ? ZMQ_PUSH : ZMQ_REQ);
    check(zmq_connect(socket, address_of(port).c_str()) == 0, "zmq_connect");
    request([=](const char *bytes) { return zmq_send(socket, bytes, theTask.len, 0); },
            [=](char *bytes) { return zmq_recv(socket, bytes, theTask.len, 0); });
}

// ---- nanomsg

static int nanomsg_socket(int protocol)
{
    const int socket = nn_socket(AF_SP, protocol);
    const int on = 1;
    check(nn_setsockopt(socket, NN_TCP, NN_TCP_NODELAY, &on, sizeof(on)) == 0, "nn_setsockopt");
    return socket;
}

void nanomsg_serve(int port)
{
    const int socket = nanomsg_socket(theTask.oneWay ? NN_PULL : NN_REP);
    check(nn_bind(socket, address_of(port).c_str()) >= 0, "nn_bind");
    serve([=](const char *bytes) { return nn_send(socket, bytes, theTask.len, 0); },
          [=](char *bytes) { return nn_recv(socket, bytes, theTask.len, 0); });
}

void nanomsg_request(int port)
{
    const int socket = nanomsg_socket(theTask.oneWay ? NN_PUSH : NN_REQ);
    check(nn_connect(socket, address_of(port).c_str()) >= 0, "nn_connect");
    request([=](const char *bytes) { return nn_send(socket, bytes, theTask.len, 0); },
            [=](char *bytes) { return nn_recv(socket, bytes, theTask.len, 0); });
}

// ---- nng, which sends without delay unless told otherwise

static int nng_send_bytes(nng_socket socket, const char *bytes)
{
    return nng_send(socket, const_cast<char *>(bytes), theTask.len, 0) == 0 ? theTask.len : -1;
}

static int nng_receive_bytes(nng_socket socket, char *bytes)
{
    size_t len = theTask.len;
    return nng_recv(socket, bytes, &len, 0) == 0 ? (int)len : -1;
}

void nng_serve(int port)
{
    nng_socket socket;
    check((theTask.oneWay ? nng_pull0_open : nng_rep0_open)(&socket) == 0, "nng open");
    check(nng_listen(socket, address_of(port).c_str(), nullptr, 0) == 0, "nng_listen");
    serve([=](const char *bytes) { return nng_send_bytes(socket, bytes); },
          [=](char *bytes) { return nng_receive_bytes(socket, bytes); });
}

void nng_request(int port)
{
    nng_socket socket;
    check((theTask.oneWay ? nng_push0_open : nng_req0_open)(&socket) == 0, "nng open");
    check(nng_dial(socket, address_of(port).c_str(), nullptr, 0) == 0, "nng_dial");
    request([=](const char *bytes) { return nng_send_bytes(socket, bytes); },
            [=](char *bytes) { return nng_receive_bytes(socket, bytes); });
}
