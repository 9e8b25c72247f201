"""Documents of the broker: programs that open them, and providers that bring their content in.

`Client` is a program's side, `Provider` a provider's, and `placeholder` makes, fills and empties the
files that stand for documents. Documents are named by path. What fails raises `Error`.
"""

from . import placeholder
from ._client import Client, Grant, ProviderInfo, ResolvedBookmark, SandboxExtension
from ._errors import Error
from ._provider import Provider

__all__ = [
    "Client",
    "Error",
    "Grant",
    "Provider",
    "ProviderInfo",
    "ResolvedBookmark",
    "SandboxExtension",
    "placeholder",
]
