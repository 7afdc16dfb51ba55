import os
from typing import Dict, Iterable, List, Optional, Sequence, Union

from dask.distributed import Client

_Row = Dict[str, Union[str, float, None]]
COLUMNS: List[str]

def segment_file(path: Union[str, "os.PathLike[str]"], params: str = "", block_ms: int = 20,
                 volume: bool = False) -> List[_Row]: ...
def segment_files(paths: Sequence[Union[str, "os.PathLike[str]"]], params: str = "", block_ms: int = 20,
                  volume: bool = False) -> List[List[_Row]]: ...
def serial(paths: Iterable[Union[str, "os.PathLike[str]"]], params: str = "", block_ms: int = 20,
           volume: bool = False) -> List[_Row]: ...
def run(paths: Iterable[Union[str, "os.PathLike[str]"]], output: Optional[Union[str, "os.PathLike[str]"]] = None,
        client: Optional[Client] = None, params: str = "", block_ms: int = 20, volume: bool = False,
        show_progress: bool = True, resume: bool = False) -> List[_Row]: ...
def main(argv: Optional[Sequence[str]] = None) -> int: ...
