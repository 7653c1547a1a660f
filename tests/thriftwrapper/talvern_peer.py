# A peer on stubs generated from the service's IDL: prints its answer to each
# operation, as a peer in another language reads it. Argument: the data folder.
import json
import sys

from thrift.protocol import TBinaryProtocol
from thrift.transport import TSocket, TTransport

from talvern import Talvern


def connect():
    transport = TTransport.TFramedTransport(TSocket.TSocket("127.0.0.1", 9088))
    transport.open()
    return Talvern.Client(TBinaryProtocol.TBinaryProtocol(transport))


def ask(client, document):
    return client.request(json.dumps(document, ensure_ascii=False))


data = sys.argv[1]
client = connect()
print(ask(client, {"api": 0, "path": data + "/相册/фото.jpg", "name": "фото.jpg", "hash": "py0",
                   "defaultModifyTime": 5}))
print(ask(client, {"api": 1, "path": data + "/歌.mp3", "name": "歌.mp3", "hash": "py1"}))
print(ask(client, {"api": 2, "path": data + "/片.mp4", "name": "片.mp4", "hash": "py2",
                   "defaultModifyTime": 6}))
print(ask(client, {"api": 3, "root": "/mnt/none"}))
print(ask(client, {"api": 0, "path": data + "/a.jpg"}))
print(ask(client, {"api": 1, "path": "", "name": "a", "hash": "h"}))
print(repr(client.request("not json")))
print(repr(client.notify(12, "ünïcode")))

# A title stored from a name that is not UTF-8 comes back as those bytes, which
# the strict stubs refuse as a string and read as bytes.
latin1 = {"api": 0, "path": "/x/a.jpg", "name": "a.jpg", "hash": "latin1", "defaultModifyTime": 1}
try:
    ask(client, latin1)
except UnicodeDecodeError:
    print("UnicodeDecodeError")
TBinaryProtocol.TBinaryProtocol.readString = TBinaryProtocol.TBinaryProtocol.readBinary
print(ask(connect(), latin1))
