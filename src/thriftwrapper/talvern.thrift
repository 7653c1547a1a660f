// The daemon's service: one JSON document in, one JSON document out.
namespace cpp talvern
namespace py talvern

service Talvern {
    string request(1: string parameter),
    string notify(1: i32 type, 2: string parameter)
}
