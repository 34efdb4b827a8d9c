// Behaviour beyond the proxy's original design. Each extension has one bit;
// the host switches them with the service's SetExtensions, and the module
// starts with none, so a host that never asks gets the proxy as designed.
#pragma once

// Quick liveness test: a kept server connection is reused when it is quiet
// right now, without first waiting 25 ms for a close.
constexpr unsigned kExtensionQuickLiveness = 1u << 0;
// Deep accept queue: the listener queues as many connections as the system
// allows instead of 5, so bursts of connections are not dropped and retried.
constexpr unsigned kExtensionDeepAcceptQueue = 1u << 1;
// Tunnel guard: a CONNECT to a host that an ad-server rule blocks whole
// ("||host^" without path or options, and no exception for it) is refused
// with a 403 instead of being tunnelled.
constexpr unsigned kExtensionTunnelGuard = 1u << 2;
// Loopback listener: the proxy listens on 127.0.0.1 only instead of every
// interface, so other machines cannot reach it or fill its accept queue.
constexpr unsigned kExtensionLoopbackListener = 1u << 3;
// Standard HTTP: messages are framed, retried and answered as RFC 9110/9112
// ask (one request judged at a time, no bytes past a message's end, 400/502/
// 504 replies instead of silent closes, a Via field).
constexpr unsigned kExtensionStandardHttp = 1u << 4;
constexpr unsigned kExtensionsAll = kExtensionQuickLiveness | kExtensionDeepAcceptQueue |
                                    kExtensionTunnelGuard | kExtensionLoopbackListener |
                                    kExtensionStandardHttp;
