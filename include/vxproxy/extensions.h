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
constexpr unsigned kExtensionsAll =
    kExtensionQuickLiveness | kExtensionDeepAcceptQueue | kExtensionTunnelGuard;
