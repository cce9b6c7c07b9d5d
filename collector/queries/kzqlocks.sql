-- kzqlocks: locks. One row per lock request (TOP (@max_rows): waiting requests first,
-- then by session). The shared lock every session holds on its current database, and this
-- query's own locks, are left out.
-- Reads: sys.dm_tran_locks, sys.databases, and in each database holding row, key or page
--        locks sys.partitions (to name the table of a lock that names only its heap or
--        B-tree).
-- Needs: VIEW SERVER STATE; CONNECT ANY DATABASE and VIEW ANY DEFINITION to name tables
-- (TBNAME, UTBNAME have no value for a database the login may not enter).
-- LCKRSCTYPE: 2 database, 3 file, 5 table, 6 page, 7 key, 8 extent, 9 row, 10 application,
-- 11 metadata, 12 heap or B-tree, 13 allocation unit. LCKRQSTATE: 1 granted,
-- 2 converting, 3 waiting. PAGE: the page of a page or row lock, else 0.
DECLARE @hobt TABLE (database_id int NOT NULL, hobt_id bigint NOT NULL, object_id int NOT NULL);
DECLARE @each_db nvarchar(max) = N'';
SELECT @each_db = @each_db + N'EXEC ' + QUOTENAME(name) + N'.sys.sp_executesql @q;'
FROM sys.databases
WHERE state = 0 AND user_access <> 1 AND HAS_DBACCESS(name) = 1
  AND database_id NOT IN (SELECT rs.database_id
                          FROM sys.dm_hadr_database_replica_states AS rs
                          JOIN sys.availability_replicas AS ar ON ar.replica_id = rs.replica_id
                          WHERE rs.is_local = 1 AND rs.is_primary_replica = 0
                            AND ar.secondary_role_allow_connections <> 2)
  AND database_id IN (SELECT resource_database_id FROM sys.dm_tran_locks
                      WHERE resource_type IN (N'KEY', N'PAGE', N'RID', N'HOBT'));
INSERT INTO @hobt (database_id, hobt_id, object_id)
EXEC sys.sp_executesql @each_db, N'@q nvarchar(max)',
    @q = N'SELECT DB_ID(), p.hobt_id, p.object_id
           FROM sys.partitions AS p
           WHERE p.hobt_id IN (SELECT resource_associated_entity_id FROM sys.dm_tran_locks
                               WHERE resource_database_id = DB_ID()
                                 AND resource_type IN (N''KEY'', N''PAGE'', N''RID'', N''HOBT''));';

WITH lock_rows AS (
    SELECT l.request_session_id, l.resource_database_id, l.resource_type, l.request_mode,
           l.request_status, RTRIM(l.resource_description) AS res_desc,
           CASE WHEN l.resource_type = N'OBJECT' THEN CAST(l.resource_associated_entity_id AS int)
                ELSE h.object_id END AS object_id
    FROM sys.dm_tran_locks AS l
    LEFT JOIN @hobt AS h
           ON h.database_id = l.resource_database_id
          AND h.hobt_id = l.resource_associated_entity_id
          AND l.resource_type IN (N'KEY', N'PAGE', N'RID', N'HOBT')
    WHERE l.request_session_id <> @@SPID
      AND NOT (l.resource_type = N'DATABASE' AND l.request_mode = N'S' AND l.request_status = N'GRANT')
)
SELECT TOP (@max_rows)
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    CASE request_mode
        WHEN N'S' THEN N'Shared' WHEN N'U' THEN N'Update' WHEN N'X' THEN N'Exclusive'
        WHEN N'IS' THEN N'Intent shared' WHEN N'IU' THEN N'Intent update'
        WHEN N'IX' THEN N'Intent exclusive' WHEN N'SIU' THEN N'Shared intent update'
        WHEN N'SIX' THEN N'Shared intent exclusive' WHEN N'UIX' THEN N'Update intent exclusive'
        WHEN N'BU' THEN N'Bulk update' WHEN N'Sch-S' THEN N'Schema stability'
        WHEN N'Sch-M' THEN N'Schema modification' ELSE request_mode END AS LOCKTYPE,
    request_session_id AS PIDHOLD,
    DB_NAME(resource_database_id) AS DBNAME,
    resource_database_id AS DBID,
    OBJECT_NAME(object_id, resource_database_id) AS TBNAME,
    CASE resource_type
        WHEN N'PAGE' THEN TRY_CAST(PARSENAME(REPLACE(res_desc, N':', N'.'), 1) AS int)
        WHEN N'RID' THEN TRY_CAST(PARSENAME(REPLACE(res_desc, N':', N'.'), 2) AS int)
        ELSE 0 END AS PAGE,
    CASE resource_type
        WHEN N'DATABASE' THEN 2 WHEN N'FILE' THEN 3 WHEN N'OBJECT' THEN 5 WHEN N'PAGE' THEN 6
        WHEN N'KEY' THEN 7 WHEN N'EXTENT' THEN 8 WHEN N'RID' THEN 9 WHEN N'APPLICATION' THEN 10
        WHEN N'METADATA' THEN 11 WHEN N'HOBT' THEN 12 WHEN N'ALLOCATION_UNIT' THEN 13 END AS LCKRSCTYPE,
    CASE request_status WHEN N'GRANT' THEN 1 WHEN N'CONVERT' THEN 2 WHEN N'WAIT' THEN 3 END AS LCKRQSTATE,
    DB_NAME(resource_database_id) AS UDBNAME,
    OBJECT_SCHEMA_NAME(object_id, resource_database_id) + N'.'
        + OBJECT_NAME(object_id, resource_database_id) AS UTBNAME
FROM lock_rows
ORDER BY CASE WHEN request_status = N'GRANT' THEN 1 ELSE 0 END, request_session_id;
